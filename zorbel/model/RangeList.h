#pragma once

#include <cstdint>
#include <vector>

#include "model/SizeCounts.h"

namespace zorbel {

/// A range of one object, in bytes, not rounded to pages, and what is charged to it.
struct RangeNode {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    SizeCounts counts;

    [[nodiscard]] std::uint64_t end() const { return offset + size; }
    [[nodiscard]] std::uint64_t roundedStart(std::uint64_t pageSize) const {
        return offset & ~(pageSize - 1);
    }
    [[nodiscard]] std::uint64_t roundedEnd(std::uint64_t pageSize) const {
        return (end() + pageSize - 1) & ~(pageSize - 1);
    }
};

/// A linked list of disjoint ranges in ascending order of offset. Between two neighbours lies at least one
/// whole page, as long as every range is folded with the same page size.
///
/// The list is never searched: whoever folds a range in says where it belongs.
class RangeList {
  public:
    /// Stands for a range that was folded in, also after the range has become part of a larger one.
    using Position = std::uint32_t;
    static constexpr Position kNone = 0xFFFFFFFF;

    /// Folds a range in; pageSize is a power of two, in bytes. Every range that overlaps or touches the new
    /// one after rounding to pages is joined with it, in ascending order: each count becomes the sum less the
    /// bytes that the two have in common, but at least the larger of the two. What they have in common is
    /// measured against the new range as it was given, also after it has grown.
    ///
    /// leftNeighbour is the position of the one range, of all folded in so far, that has the greatest offset
    /// not above the new one's, or kNone when all lie above.
    Position fold(const RangeNode& added, std::uint64_t pageSize, Position leftNeighbour);

    [[nodiscard]] SizeCounts total() const;

  private:
    struct Slot {
        RangeNode range;
        Position previous;
        Position next;
        Position joinedInto;  // Itself while the range is in the list.
    };

    Position _inList(Position position);
    Position _link(const RangeNode& range, Position previous, Position next);

    std::vector<Slot> _slots;
    Position _first = kNone;
};

}  // namespace zorbel
