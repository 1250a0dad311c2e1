#pragma once

#include <string>

#include "inspect/memgraph/MemoryGraph.h"

namespace zorbel {

/// Saves a graph in a file that nobody but its owner may read. Nobody ever sees a part of it: it is complete
/// when it appears, and when it does not appear nothing is left behind. Replaces a file that is there only
/// where that is asked for, and never anything but a file. 0 or an errno.
int saveGraph(const MemoryGraph& graph, const std::string& path, bool replace);

}  // namespace zorbel
