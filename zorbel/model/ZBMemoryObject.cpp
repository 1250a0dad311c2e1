#include "model/ZBMemoryObject.h"

#include <algorithm>

namespace zorbel {

namespace {

RangeNode nodeOf(const ZBMemoryRegion& region) { return {region.offset(), region.size(), region.ownSizes()}; }

}  // namespace

void ZBMemoryObject::addRegion(ZBMemoryRegion& region, std::uint32_t pageSize) {
    _accurateSizes = false;
    if (!_name.isPresent()) _name = region.name();
    if (_memoryRegions.empty()) _firstPageSize = pageSize;
    if (pageSize != _firstPageSize && !_pageSizes)
        _pageSizes = std::make_unique<std::vector<std::uint32_t>>(_memoryRegions.size(), _firstPageSize);
    if (_pageSizes) _pageSizes->push_back(pageSize);
    _memoryRegions.push_back(&region);
}

void ZBMemoryObject::addSharedPart(ZBMemoryRegion& region, const SharedPart& part, std::uint32_t pageSize) {
    _stated = part.objectSizes;
    if (region.memoryObject() != this) addRegion(region, pageSize);
    _accurateSizes = false;
}

bool ZBMemoryObject::_counts(const ZBMemoryRegion& region) const {
    const bool isOwn = region.memoryObject() == nullptr || region.memoryObject() == this;
    return isOwn && region.object_id() != 0;
}

std::uint32_t ZBMemoryObject::_pageSizeOfRegion(std::size_t index) const {
    return _pageSizes ? (*_pageSizes)[index] : _firstPageSize;
}

void ZBMemoryObject::calculateSizes() {
    if (_accurateSizes) return;
    _totals = _stated;
    _accurateSizes = true;
    if (_memoryRegions.size() > 1) return _foldRegions();
    // Most objects have one region and need no folding.
    for (const ZBMemoryRegion* region : _memoryRegions)
        if (_counts(*region)) _totals += region->ownSizes();
}

/// Splits the regions into runs of ranges that meet, and adds the runs up.
void ZBMemoryObject::_foldRegions() {
    // Ranges that are a page apart at the largest page size never meet at a smaller one.
    const std::uint64_t page =
        _pageSizes ? *std::max_element(_pageSizes->begin(), _pageSizes->end()) : _firstPageSize;
    boost::container::small_vector<Span, 8> spans;
    spans.reserve(_memoryRegions.size());
    for (std::size_t i = 0; i < _memoryRegions.size(); ++i) {
        const ZBMemoryRegion& region = *_memoryRegions[i];
        if (_counts(region))
            spans.push_back(
                {region.offset(), nodeOf(region).roundedEnd(page), static_cast<std::uint32_t>(i)});
    }
    const auto byOffset = [](const Span& a, const Span& b) {
        return a.offset != b.offset ? a.offset < b.offset : a.index < b.index;
    };
    if (!std::is_sorted(spans.begin(), spans.end(), byOffset))
        std::sort(spans.begin(), spans.end(), byOffset);

    for (auto first = spans.begin(); first != spans.end();) {
        std::uint64_t end = first->roundedEnd;
        bool overlap = false;
        auto last = first + 1;
        for (; last != spans.end(); ++last) {
            const std::uint64_t start = last->offset & ~(page - 1);
            if (start > end) break;
            overlap = overlap || start < end;
            end = std::max(end, last->roundedEnd);
        }
        if (overlap) {
            _foldRun({first, last});
        } else {  // Ranges that at most touch have no page in common: their counts add up in any order.
            for (; first != last; ++first) _totals += _memoryRegions[first->index]->ownSizes();
        }
        first = last;
    }
}

/// Adds up a run of ranges, some of which overlap. The run is in order of offset, but ranges are folded in
/// the order in which they were added. So each range needs its left neighbour among the ranges added before
/// it. To find it, removes the ranges from a linked list of all, last added first.
void ZBMemoryObject::_foldRun(std::span<const Span> run) {
    constexpr std::uint32_t kNone = 0xFFFFFFFF;
    struct Arrival {
        std::uint32_t index;
        std::uint32_t place;  // Index in the run.
    };
    struct Neighbours {
        std::uint32_t left;
        std::uint32_t right;
    };
    const auto count = static_cast<std::uint32_t>(run.size());
    std::vector<Arrival> arrivals(count);
    std::vector<Neighbours> neighbours(count);
    for (std::uint32_t place = 0; place < count; ++place) {
        arrivals[place] = {run[place].index, place};
        neighbours[place] = {place == 0 ? kNone : place - 1, place + 1 == count ? kNone : place + 1};
    }
    std::sort(arrivals.begin(), arrivals.end(),
              [](const Arrival& a, const Arrival& b) { return a.index < b.index; });
    for (auto arrival = arrivals.rbegin(); arrival != arrivals.rend(); ++arrival) {
        const auto [left, right] = neighbours[arrival->place];
        if (left != kNone) neighbours[left].right = right;
        if (right != kNone) neighbours[right].left = left;
    }

    RangeList list;
    for (const auto [index, place] : arrivals) {
        const std::uint32_t left = neighbours[place].left;
        const RangeList::Position leftPosition = left == kNone ? RangeList::kNone : neighbours[left].right;
        // The right neighbour is no longer needed: reuse its field for the range's position in the list.
        neighbours[place].right =
            list.fold(nodeOf(*_memoryRegions[index]), _pageSizeOfRegion(index), leftPosition);
    }
    _totals += list.total();
}

}  // namespace zorbel
