#pragma once

#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/Name.h"
#include "model/RangeList.h"
#include "model/ZBMemoryRegion.h"

namespace zorbel {

/// A piece of memory, such as a file or a shared segment, with all regions in all targets that map it.
///
/// Single pages are not known, only the range of the object that a region maps and the region's byte counts.
/// Ranges that overlap or touch, after rounding to pages, are folded into one. What two ranges count on their
/// common pages is assumed to be the same memory and counts once, but the result is never less than either
/// range alone. Because of this minimum, the result depends on the order, so regions are folded in the order
/// in which they were added.
///
/// Folding happens when sizes are calculated and all ranges are known. Most ranges need none: an object with
/// one region has that region's sizes. With several regions, sorting finds the ranges that overlap, and only
/// those go through a list of disjoint ranges. Cost: O(n log n) in the number of regions, in any order.
class ZBMemoryObject {
  public:
    /// The ordinal identifies the object in a run. Equal runs give equal ordinals.
    explicit ZBMemoryObject(std::size_t ordinal = 0) : _ordinal(ordinal) {}

    /// Adds a region of a process with this page size, a power of two. Add each region once. A region without
    /// object id counts as a region but adds no bytes. The first region's name becomes the object's name.
    /// Afterwards, the region's offset, size and counts must not change. offset + size + page size must not
    /// overflow.
    void addRegion(ZBMemoryRegion& region, std::uint32_t pageSize);

    /// Adds a region that has a part of this object beside its own memory: a member whose other sizes don't
    /// count here. The sizes of the part as a whole, the same for all regions that have it, are stated and
    /// not folded.
    void addSharedPart(ZBMemoryRegion& region, const SharedPart& part, std::uint32_t pageSize);

    /// Updates the totals. Does nothing if no region was added since the last call.
    void calculateSizes();

    // Sums in bytes, as of the last calculateSizes().
    [[nodiscard]] const SizeCounts& totalSizes() const { return _totals; }
    [[nodiscard]] std::uint64_t totalDirtySize() const { return _totals.dirty; }
    [[nodiscard]] std::uint64_t totalCleanSize() const { return _totals.clean; }
    [[nodiscard]] std::uint64_t totalSwappedSize() const { return _totals.swapped; }
    [[nodiscard]] std::uint64_t totalReclaimableSize() const { return _totals.reclaimable; }
    [[nodiscard]] std::uint64_t totalWiredSize() const { return _totals.wired; }

    [[nodiscard]] Name name() const { return _name; }
    void setName(Name name) { _name = name; }

    /// All regions, in the order in which they were added; not owned.
    [[nodiscard]] std::span<ZBMemoryRegion* const> memoryRegions() const { return _memoryRegions; }

    [[nodiscard]] std::size_t ordinal() const { return _ordinal; }

  private:
    struct Span {
        std::uint64_t offset;
        std::uint64_t roundedEnd;
        std::uint32_t index;  // Of the region, in the order in which regions were added.
    };

    [[nodiscard]] std::uint32_t _pageSizeOfRegion(std::size_t index) const;
    /// Whether the region's own sizes count for this object.
    [[nodiscard]] bool _counts(const ZBMemoryRegion& region) const;
    void _foldRegions();
    void _foldRun(std::span<const Span> run);

    /// Most objects have one region, which needs no allocation.
    boost::container::small_vector<ZBMemoryRegion*, 1> _memoryRegions;
    /// Page size of each region; null if all have the same.
    std::unique_ptr<std::vector<std::uint32_t>> _pageSizes;
    SizeCounts _stated;  ///< Of the part that is known to the page.
    SizeCounts _totals;
    Name _name;
    std::size_t _ordinal;
    std::uint32_t _firstPageSize = 0;
    bool _accurateSizes = false;
};

/// Calls with each object that a region is attached to, once.
template <typename Visitor>
void forEachObject(const ZBMemoryRegion& region, const Visitor& visit) {
    visit(*region.memoryObject());
    for (const SharedPart& part : region.sharedParts())
        if (part.memoryObject != nullptr && part.memoryObject != region.memoryObject())
            visit(*part.memoryObject);
}

}  // namespace zorbel
