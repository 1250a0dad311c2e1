#include "linux/pages/PageSet.h"

#include <algorithm>

namespace zorbel {

void PageSet::add(std::uint64_t first, std::uint64_t end) {
    constexpr std::size_t kWorthMerging = 1024;
    if (first >= end) return;
    _before.clear();
    if (!_stretches.empty() && _stretches.back().end == first)
        _stretches.back().end = end;
    else
        _stretches.push_back({first, end});
    if (_stretches.size() >= std::max(kWorthMerging, 2 * _mergedCount)) _merge();
}

void PageSet::_merge() {
    std::ranges::sort(_stretches, {}, &Stretch::first);
    std::size_t merged = 0;  // Index of the last one of those that stay.
    for (std::size_t i = 1; i < _stretches.size(); ++i)
        if (_stretches[i].first <= _stretches[merged].end)
            _stretches[merged].end = std::max(_stretches[merged].end, _stretches[i].end);
        else
            _stretches[++merged] = _stretches[i];
    if (!_stretches.empty()) _stretches.resize(merged + 1);
    _mergedCount = _stretches.size();
    _before.clear();
    std::uint64_t pages = 0;
    for (const Stretch& stretch : _stretches) {
        _before.push_back(pages);
        pages += stretch.end - stretch.first;
    }
}

std::uint64_t PageSet::_countBelow(std::uint64_t page) const {
    const auto next = std::ranges::lower_bound(_stretches, page, {}, &Stretch::first);
    if (next == _stretches.begin()) return 0;
    const auto index = static_cast<std::size_t>(next - _stretches.begin()) - 1;
    return _before[index] + std::min(page, _stretches[index].end) - _stretches[index].first;
}

std::uint64_t PageSet::count() { return countIn(0, UINT64_MAX); }

std::uint64_t PageSet::countIn(std::uint64_t first, std::uint64_t end) {
    if (_before.size() != _stretches.size()) _merge();
    return _countBelow(end) - _countBelow(first);
}

}  // namespace zorbel
