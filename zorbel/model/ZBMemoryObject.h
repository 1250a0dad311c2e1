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

/// One piece of memory, such as a file or a shared segment, with all the regions that map it in any of the
/// targets.
///
/// Pages are not visible here, only the range of the object that a region maps and the region's byte counts.
/// Ranges that overlap or touch, after rounding to pages, fold into one: what two ranges count on their
/// common pages is assumed to be the same memory and counts once, and the result never falls below what
/// either range has alone. Since that floor makes the result depend on the order of folding, regions fold in
/// the order in which they were added.
///
/// Folding waits until sizes are asked for. Only then are all ranges known, and most need no folding at all:
/// an object with one region takes the region's figures, and of many regions only those whose ranges overlap,
/// found by sorting, go through a list of disjoint ranges. Cost: O(n log n) in the regions, whatever their
/// order.
class ZBMemoryObject {
  public:
    /// The ordinal tells the objects of a run apart in an order that is the same for equal runs.
    explicit ZBMemoryObject(std::size_t ordinal = 0) : _ordinal(ordinal) {}

    /// Adds a region of a process with the given page size, a power of two. A region is added once. A region
    /// without object identity is a member without bytes. The first region's name becomes the object's. The
    /// region's offset, size and counts must not change any more, and offset + size + page size must not
    /// wrap.
    void addRegion(ZBMemoryRegion& region, std::uint32_t pageSize);

    /// Brings the totals up to date; free when nothing was added since.
    void calculateSizes();

    // Sums over the ranges, in bytes, as of the last calculateSizes().
    [[nodiscard]] const SizeCounts& totalSizes() const { return _totals; }
    [[nodiscard]] std::uint64_t totalDirtySize() const { return _totals.dirty; }
    [[nodiscard]] std::uint64_t totalCleanSize() const { return _totals.clean; }
    [[nodiscard]] std::uint64_t totalSwappedSize() const { return _totals.swapped; }
    [[nodiscard]] std::uint64_t totalReclaimableSize() const { return _totals.reclaimable; }
    [[nodiscard]] std::uint64_t totalWiredSize() const { return _totals.wired; }

    [[nodiscard]] Name name() const { return _name; }
    void setName(Name name) { _name = name; }

    /// Every region that was added, in that order; not owned.
    [[nodiscard]] std::span<ZBMemoryRegion* const> memoryRegions() const { return _memoryRegions; }

    [[nodiscard]] std::size_t ordinal() const { return _ordinal; }

  private:
    struct Span {
        std::uint64_t offset;
        std::uint64_t roundedEnd;
        std::uint32_t index;  // Of the region, so in the order in which they were added.
    };

    [[nodiscard]] std::uint32_t _pageSizeOfRegion(std::size_t index) const;
    void _foldRegions();
    void _foldRun(std::span<const Span> run);

    /// Most objects have one region, which needs no memory of its own here.
    boost::container::small_vector<ZBMemoryRegion*, 1> _memoryRegions;
    /// Page size of each region; absent as long as all have the first one's.
    std::unique_ptr<std::vector<std::uint32_t>> _pageSizes;
    SizeCounts _totals;
    Name _name;
    std::size_t _ordinal;
    std::uint32_t _firstPageSize = 0;
    bool _accurateSizes = false;
};

}  // namespace zorbel
