#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "inspect/ZBUserProcess.h"
#include "memgraph/MemoryGraph.h"

namespace zorbel {

/// A live process that is to be saved as a memory graph.
class ZBCapturedProcess : public ZBUserProcess {
  public:
    /// Opens the process with this pid; null when it does not exist or can't be opened. The kernel can't.
    static std::unique_ptr<ZBCapturedProcess> capturedProcessWithPid(Platform& platform, std::int32_t pid);

    /// Gives the objects that the regions of all these processes map the ids that they have in graphs. A
    /// graph knows no offsets: regions keep one id where their ranges of the same object overlap, if need be
    /// by way of others, and get ids of their own where they do not. Called once, when all are gathered.
    static void separateObjects(std::span<ZBCapturedProcess* const> processes);

    /// All that was gathered, without a name for the capture and the kind of machine.
    [[nodiscard]] MemoryGraph graph() const;

  protected:
    explicit ZBCapturedProcess(Platform& platform) : ZBUserProcess(platform) {}

    void enumerateRegions(const RegionVisitor& visitor) override;

  private:
    /// What regions do not keep.
    struct Details {
        RegionInfoRecord record;
        int purgeableState;
        Name path;
    };

    /// The image is that which the region is part of; null where it is part of none.
    [[nodiscard]] GraphRegion _graphRegionOf(const ZBMemoryRegion& region, const Details& details,
                                             const ZBImage* image) const;

    std::vector<Details> _details;  ///< Of each region.
};

}  // namespace zorbel
