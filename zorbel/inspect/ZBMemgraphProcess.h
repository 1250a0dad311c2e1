#pragma once

#include <memory>
#include <string>
#include <vector>

#include "inspect/ZBUserProcess.h"
#include "platform/MemoryGraphReader.h"

namespace zorbel {

/// A process saved as a memory graph, analysed like a live process.
class ZBMemgraphProcess : public ZBUserProcess {
  public:
    /// Opens a file. Fails if it can't be read, is no memory graph, or comes from an unknown kind of machine.
    /// The error has the domain "ZorbelErrorDomain" for an unknown machine, and for a file that the platform
    /// rejects without a reason.
    static Result<std::unique_ptr<ZBMemgraphProcess>> processWithMemgraph(Platform& platform,
                                                                          const std::string& path);

    /// The mode of the graph.
    [[nodiscard]] bool breakDownPhysZorbel() const override;

  protected:
    explicit ZBMemgraphProcess(Platform& platform) : ZBUserProcess(platform) {}

    Result<void> initWithMemgraph(const std::string& path);
    /// The name in the graph: the pid may already belong to another process.
    [[nodiscard]] std::string _gatherName(const BsdInfoRecord& record) const override;
    [[nodiscard]] std::uint32_t _gatherPageSize() const override;
    /// Takes the sizes from the record, which counts bytes inside the shared region.
    bool _populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece, const RegionInfoRecord& record) override;
    /// Also finds the images.
    void enumerateRegions(const RegionVisitor& visitor) override;
    void _gatherImageData() override {}
    void _gatherPhysZorbel() override;
    bool _populateTask() override { return true; }
    [[nodiscard]] bool _isAlive() const override { return false; }

  private:
    /// The record lends what the next call overwrites.
    [[nodiscard]] RegionInfoRecord _recordOf(const GraphRegion& region);
    [[nodiscard]] SharedPages _pagesOf(const GraphSharedPart& part) const;

    std::unique_ptr<MemoryGraphReader> _graph;
    std::vector<SharedPages> _shared;  ///< Of the region of the last record.
};

}  // namespace zorbel
