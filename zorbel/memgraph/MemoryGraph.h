#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Error.h"
#include "platform/MemoryGraphReader.h"

namespace zorbel {

/// A memory graph, as docs/memgraph.md describes its JSON file.
struct MemoryGraph : GraphProcess {
    std::string format = "zorbel-memgraph";
    std::uint32_t version = 1;
    /// The same in all graphs of one zorbel-capture run, which share object ids.
    std::string capture;
    std::vector<GraphRegion> regions;
};

/// Parses the contents of a file, plain or compressed with gzip or Zstandard. The result is checked: regions
/// ascend, do not overlap and stay below the last address, and all texts are printable. Anything else is an
/// error that says what is wrong and where.
Result<MemoryGraph> parseMemoryGraph(std::string_view contents);

/// Writes a graph with one region per line. Errors show in the stream's error flag and errno.
void writeMemoryGraph(std::FILE* file, const MemoryGraph& graph);

/// Reads from a graph in memory.
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
