#pragma once

#include <cstdint>
#include <vector>

#include "model/SizeCounts.h"

namespace zorbel {

/// A range of an object and its byte counts. Offset and size are bytes, not rounded to pages.
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

/// A linked list of disjoint ranges, in ascending order of offset. At least one whole page lies between two
/// neighbours, as long as all ranges use the same page size.
///
/// The list is never searched: the caller of fold() knows where a range belongs.
class RangeList {
  public:
    /// Identifies a range that was folded in, even after it is joined into a larger one.
    using Position = std::uint32_t;
    static constexpr Position kNone = 0xFFFFFFFF;

    /// Folds a range in; pageSize is a power of two, in bytes. Joins all ranges that overlap or touch the new
    /// one after rounding to pages, in ascending order. Each count becomes the sum minus the common bytes,
    /// but at least the larger of the two counts. Common bytes are those common with the new range as given,
    /// even after it has grown.
    ///
    /// leftNeighbour is the position of the range with the greatest offset not above the new one's, among all
    /// ranges folded in so far; kNone if all are above.
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
