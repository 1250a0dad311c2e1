#include "linux/pages/Families.h"

#include <linux/kcmp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

namespace zorbel {

namespace {

/// 0 where two threads have one address space, otherwise their order; -1 where we may not compare them. Two
/// that have no memory any more are equal.
long compareSpaces(std::int32_t a, std::int32_t b) { return syscall(SYS_kcmp, a, b, KCMP_VM, 0, 0); }

/// Orders threads by their address spaces, in an order of the kernel's. Where we may not compare two, by
/// number.
bool isBefore(std::int32_t a, std::int32_t b) {
    const long order = compareSpaces(a, b);
    if (order == 0) return false;
    return order == 1 || (order != 2 && a < b);
}

}  // namespace

Families::Families(std::span<const Process> processes, bool seesFrames, bool seesFlags,
                   const HasMemory& hasMemory)
    : _seesFrames(seesFrames),
      _comparesSpaces(compareSpaces(getpid(), getpid()) == 0),
      _firsts(processes.size()),
      _families(processes.size()) {
    std::iota(_firsts.begin(), _firsts.end(), std::size_t{0});
    std::vector<std::size_t> order = _firsts;
    std::ranges::stable_sort(order, {}, [&](std::size_t i) { return processes[i].stackStart; });
    for (auto first = order.begin(); first != order.end();) {
        const std::uint64_t stackStart = processes[*first].stackStart;
        const auto last = std::find_if(first, order.end(),
                                       [&](std::size_t i) { return processes[i].stackStart != stackStart; });
        const auto family = static_cast<std::uint32_t>(_isAlone.size());
        for (auto i = first; i != last; ++i) _families[*i] = family;
        const std::size_t spaces = _findAddressSpaces(processes, {first, last}, hasMemory);
        _isAlone.push_back(spaces == 1);
        const bool hasSwap = std::any_of(first, last, [&](std::size_t i) { return processes[i].hasSwap; });
        const bool mayPair = _seesFrames && seesFlags && spaces > 1 && hasSwap;
        _swapCaches.push_back(mayPair ? std::make_unique<SwapCache>() : nullptr);
        first = last;
    }
    _lineages.resize(_seesFrames ? 1 : _isAlone.size());
    for (std::size_t family = 0; family < _isAlone.size(); ++family) {
        auto& lineages = _lineages[_seesFrames ? 0 : family];
        if (!_isAlone[family] && !lineages) lineages = std::make_unique<Lineages>();
    }
    if (_seesFrames && !_lineages.empty() && !_lineages[0]) _lineages[0] = std::make_unique<Lineages>();
}

// Each process is looked for among the ones before it, with a few comparisons. A process that ends meanwhile
// compares with nothing any more: its place in the order is then arbitrary, and one that shared its address
// space may count for itself. But two that have both ended are equal. Memory never comes back to a thread: if
// one has it after the comparison, it was there during the comparison.
std::size_t Families::_findAddressSpaces(std::span<const Process> processes,
                                         std::span<const std::size_t> family, const HasMemory& hasMemory) {
    std::vector<std::size_t> spaces;
    std::size_t withoutMemory = 0;
    for (const std::size_t process : family) {
        const std::int32_t thread = processes[process].thread;
        if (thread == 0) {
            ++withoutMemory;
            continue;
        }
        const auto place = std::ranges::lower_bound(spaces, thread, isBefore,
                                                    [&](std::size_t i) { return processes[i].thread; });
        if (place == spaces.end() || compareSpaces(processes[*place].thread, thread) != 0)
            spaces.insert(place, process);
        else if (hasMemory(thread))
            _firsts[process] = *place;
        else
            ++withoutMemory;
    }
    return spaces.size() + withoutMemory;
}

LineageUse Families::useOf(std::size_t process, bool mayHaveMergedPages) {
    const std::uint32_t family = _families[process];
    if (_isAlone[family] && (!mayHaveMergedPages || !_seesFrames)) return {};
    LineageUse use;
    use.lineages = _lineages[_seesFrames ? 0 : family].get();
    use.seesFrames = _seesFrames;
    use.notesExclusive = _seesFrames && !_comparesSpaces;
    use.isTwin = _firsts[process] != process;
    use.swapCache = _swapCaches[family].get();
    return use;
}

void Families::settle() {
    for (const auto& swapCache : _swapCaches)
        if (swapCache) swapCache->settle(*_lineages[0]);
}

}  // namespace zorbel
