#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "inspect/ZBUserProcess.h"
#include "memgraph/MemoryGraph.h"

namespace zorbel {

/// A live process to be saved as a memory graph.
class ZBCapturedProcess : public ZBUserProcess {
  public:
    /// Opens the process with this pid; null if it does not exist or can't be opened, or is the kernel.
    static std::unique_ptr<ZBCapturedProcess> capturedProcessWithPid(Platform& platform, std::int32_t pid);

    /// Replaces the object ids in the regions of all these processes by those for their graphs. A graph has
    /// no offsets. So regions of one object keep a common id only if their ranges overlap, directly or
    /// through other ranges; otherwise they get separate ids. Call once, when all processes are gathered.
    static void separateObjects(std::span<ZBCapturedProcess* const> processes);

    /// The saved process, without the capture's name and the process description.
    [[nodiscard]] MemoryGraph graph() const;

  protected:
    explicit ZBCapturedProcess(Platform& platform) : ZBUserProcess(platform) {}

    void enumerateRegions(const RegionVisitor& visitor) override;

  private:
    /// What a walk reports but ZBMemoryRegion does not keep.
    struct Details {
        RegionInfoRecord record;
        int purgeableState;
        Name path;
    };

    /// The image is the one that the region is part of; null if there is none.
    [[nodiscard]] GraphRegion _graphRegionOf(const ZBMemoryRegion& region, const Details& details,
                                             const ZBImage* image) const;

    std::vector<Details> _details;  ///< One for each region.
};

}  // namespace zorbel
