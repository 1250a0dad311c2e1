#pragma once

#include <deque>
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

    /// Replaces the object ids in the regions of all these processes, and in their shared parts, by those for
    /// their graphs. A graph has no offsets. So regions of one object keep a common id only if their ranges
    /// overlap, directly or through other ranges; otherwise they get separate ids. What objects with stated
    /// sizes count becomes parts altogether, so that they stay one object. Call once, when the memory of all
    /// processes is attributed.
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

    /// What a region has of its own can be in one object with its parts, as clean pages of a file on disk are
    /// with the dirty ones. Makes parts of all that regions have of such objects.
    static void _stateWholeObjects(std::span<ZBCapturedProcess* const> processes);
    void _stateAll(ZBMemoryRegion& region);
    /// Gives the regions their new ids. Returns the highest one.
    static std::uint32_t _separateRanges(std::span<ZBCapturedProcess* const> processes);
    [[nodiscard]] static std::vector<GraphSharedPart> _graphPartsOf(const ZBMemoryRegion& region);

    std::vector<Details> _details;                    ///< One for each region.
    std::deque<std::vector<SharedPart>> _wholeParts;  ///< Lent to the regions.
};

}  // namespace zorbel
