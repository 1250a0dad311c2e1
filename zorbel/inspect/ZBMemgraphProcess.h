#pragma once

#include <memory>
#include <string>

#include "inspect/ZBUserProcess.h"
#include "platform/MemoryGraphReader.h"

namespace zorbel {

/// A process that was saved as a memory graph, analysed as if it were alive.
class ZBMemgraphProcess : public ZBUserProcess {
  public:
    /// Opens a file. An error when it can't be read, is no memory graph, or is one of an unknown kind of
    /// machine. The second and the third of these have the domain "ZorbelErrorDomain" where the platform
    /// gives no error of its own.
    static Result<std::unique_ptr<ZBMemgraphProcess>> processWithMemgraph(Platform& platform,
                                                                          const std::string& path);

    /// That of the graph.
    [[nodiscard]] bool breakDownPhysZorbel() const override;

  protected:
    explicit ZBMemgraphProcess(Platform& platform) : ZBUserProcess(platform) {}

    Result<void> initWithMemgraph(const std::string& path);
    /// The one in the graph. A live process that has the pid by now has nothing to do with it.
    [[nodiscard]] std::string _gatherName(const BsdInfoRecord& record) const override;
    [[nodiscard]] std::uint32_t _gatherPageSize() const override;
    /// Takes the sizes from the record, which counts bytes inside the shared region.
    bool _populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece, const RegionInfoRecord& record) override;
    /// Finds the images as it goes.
    void enumerateRegions(const RegionVisitor& visitor) override;
    void _gatherImageData() override {}
    void _gatherPhysZorbel() override;
    bool _populateTask() override { return true; }
    [[nodiscard]] bool _isAlive() const override { return false; }

  private:
    [[nodiscard]] RegionInfoRecord _recordOf(const GraphRegion& region) const;

    std::unique_ptr<MemoryGraphReader> _graph;
};

}  // namespace zorbel
