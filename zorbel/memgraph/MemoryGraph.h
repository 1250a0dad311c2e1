#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Error.h"
#include "platform/MemoryGraphReader.h"

namespace zorbel {

/// A memory graph as a file holds it: one JSON document, whose form docs/memgraph.md tells.
struct MemoryGraph : GraphProcess {
    std::string format = "zorbel-memgraph";
    std::uint32_t version = 1;
    /// The same text in all graphs whose object ids mean the same: those that were saved in one call.
    std::string capture;
    std::vector<GraphRegion> regions;
};

/// Reads a graph from a file's contents, which may be compressed as gzip and Zstandard do. All that is in the
/// result has been checked: regions ascend, none overlaps another or reaches beyond the last address, and all
/// texts are fit to be printed. Any other contents are an error, which says what is wrong and where.
Result<MemoryGraph> parseMemoryGraph(std::string_view contents);

/// Writes a graph, a region to a line. What may go wrong shows in the stream's error flag, and in errno.
void writeMemoryGraph(std::FILE* file, const MemoryGraph& graph);

/// A reader of a graph that is in memory.
class LoadedMemoryGraph final : public MemoryGraphReader {
  public:
    explicit LoadedMemoryGraph(MemoryGraph graph) : _graph(std::move(graph)) {}

    [[nodiscard]] const GraphProcess& process() const override { return _graph; }

    void enumerateRegions(
        const std::function<void(const GraphRegion& region, bool& stop)>& visitor) const override {
        bool stop = false;
        for (auto region = _graph.regions.begin(); region != _graph.regions.end() && !stop; ++region)
            visitor(*region, stop);
    }

  private:
    MemoryGraph _graph;
};

}  // namespace zorbel
