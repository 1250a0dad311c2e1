#pragma once

#include <string>

#include "base/Error.h"
#include "memgraph/MemoryGraph.h"

namespace zorbel {

/// Saves a graph in a file that only its owner may read. The file is complete when it appears under its name,
/// and nothing is left behind when it does not. A file that is there is replaced only on request, and nothing
/// but a regular file ever is.
Result<void> saveGraph(const MemoryGraph& graph, const std::string& path, bool replace);

}  // namespace zorbel
