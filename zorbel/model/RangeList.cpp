#include "model/RangeList.h"

#include <algorithm>

namespace zorbel {

namespace {

constexpr std::uint64_t SizeCounts::*kCounts[] = {&SizeCounts::dirty, &SizeCounts::swapped,
                                                  &SizeCounts::clean, &SizeCounts::reclaimable,
                                                  &SizeCounts::wired};

/// Adds a range of the list to the joined one. [start, end) is the new range as given, rounded to pages.
void join(RangeNode& joined, const RangeNode& met, std::uint64_t start, std::uint64_t end,
          std::uint64_t pageSize) {
    const std::uint64_t commonStart = std::max(start, met.roundedStart(pageSize));
    const std::uint64_t commonEnd = std::min(end, met.roundedEnd(pageSize));
    const std::uint64_t common = commonEnd > commonStart ? commonEnd - commonStart : 0;
    for (const auto count : kCounts) {
        std::uint64_t& mine = joined.counts.*count;
        const std::uint64_t its = met.counts.*count;
        const std::uint64_t sum = mine + its;
        mine = std::max({sum > common ? sum - common : 0, mine, its});
    }
    const std::uint64_t joinedEnd = std::max(joined.end(), met.end());
    joined.offset = std::min(joined.offset, met.offset);
    joined.size = joinedEnd - joined.offset;
}

}  // namespace

RangeList::Position RangeList::fold(const RangeNode& added, std::uint64_t pageSize, Position leftNeighbour) {
    const std::uint64_t start = added.roundedStart(pageSize);
    const std::uint64_t end = added.roundedEnd(pageSize);

    // Disjoint ranges that are sorted by start are also sorted by end. So the ranges that meet the new one
    // are neighbours: go back to the first of them, then join forward.
    Position previous = leftNeighbour == kNone ? kNone : _inList(leftNeighbour);
    Position next = previous == kNone ? _first : _slots[previous].next;
    while (previous != kNone && _slots[previous].range.roundedEnd(pageSize) >= start) {
        next = previous;
        previous = _slots[previous].previous;
    }
    if (next == kNone || _slots[next].range.roundedStart(pageSize) > end) return _link(added, previous, next);

    const Position home = next;  // The joined range replaces the first range that it meets.
    RangeNode joined = added;
    for (; next != kNone && _slots[next].range.roundedStart(pageSize) <= end; next = _slots[next].next) {
        join(joined, _slots[next].range, start, end, pageSize);
        _slots[next].joinedInto = home;
    }
    _slots[home].range = joined;
    _slots[home].next = next;
    if (next != kNone) _slots[next].previous = home;
    return home;
}

SizeCounts RangeList::total() const {
    SizeCounts total;
    for (Position position = _first; position != kNone; position = _slots[position].next)
        total += _slots[position].range.counts;
    return total;
}

/// The current list position of a range that was folded in. Halves the path for the next search.
RangeList::Position RangeList::_inList(Position position) {
    while (_slots[position].joinedInto != position) {
        Position& into = _slots[position].joinedInto;
        into = _slots[into].joinedInto;
        position = into;
    }
    return position;
}

RangeList::Position RangeList::_link(const RangeNode& range, Position previous, Position next) {
    const auto position = static_cast<Position>(_slots.size());
    _slots.push_back({range, previous, next, position});
    (previous == kNone ? _first : _slots[previous].next) = position;
    if (next != kNone) _slots[next].previous = position;
    return position;
}

}  // namespace zorbel
