#pragma once

#include <string>

#include "base/Error.h"
#include "memgraph/MemoryGraph.h"

namespace zorbel {

/// Saves a graph to a file that only its owner may read. The file gets its name only when it is complete;
/// until then, an error leaves nothing behind. An existing file is replaced only if replace is set and it is
/// a regular file.
Result<void> saveGraph(const MemoryGraph& graph, const std::string& path, bool replace);

}  // namespace zorbel
