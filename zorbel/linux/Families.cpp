#include "linux/Families.h"

#include <fcntl.h>
#include <linux/kcmp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

#include "linux/pages/PageTables.h"
#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

/// Whether we may see frame numbers, which takes CAP_SYS_ADMIN: tried on a page of our own.
bool seesFrames() {
    const volatile char onStack = 1;
    const auto address = reinterpret_cast<std::uint64_t>(&onStack) & ~(pageSize() - 1);
    const FileDescriptor self = openDirectory("/proc/self", AT_FDCWD);
    bool sees = false;
    PageTables(self.get())
        .forEachWord(address, address + pageSize(),
                     [&](std::uint64_t /*address*/, auto words) { sees = PageWord(words[0]).frame() != 0; });
    return sees;
}

/// Orders processes by their address spaces, in an order of the kernel's. Where we may not compare two, by
/// pid.
bool isBefore(std::int32_t a, std::int32_t b) {
    const long order = syscall(SYS_kcmp, a, b, KCMP_VM, 0, 0);
    if (order == 0) return false;
    return order == 1 || (order != 2 && a < b);
}

}  // namespace

Families::Families(std::span<const Process> processes)
    : _seesFrames(seesFrames()), _firsts(processes.size()), _families(processes.size()) {
    std::iota(_firsts.begin(), _firsts.end(), std::size_t{0});
    std::vector<std::size_t> order = _firsts;
    std::ranges::stable_sort(order, {}, [&](std::size_t i) { return processes[i].stackStart; });
    for (auto first = order.begin(); first != order.end();) {
        const std::uint64_t stackStart = processes[*first].stackStart;
        const auto last = std::find_if(first, order.end(),
                                       [&](std::size_t i) { return processes[i].stackStart != stackStart; });
        const auto family = static_cast<std::uint32_t>(_isAlone.size());
        for (auto i = first; i != last; ++i) _families[*i] = family;
        std::size_t spaces = 1;
        if (last - first > 1) {
            std::stable_sort(first, last, [&](std::size_t a, std::size_t b) {
                return isBefore(processes[a].pid, processes[b].pid);
            });
            for (auto i = first + 1; i != last; ++i) {
                const std::size_t known = _firsts[*(i - 1)];
                const bool isSame =
                    syscall(SYS_kcmp, processes[known].pid, processes[*i].pid, KCMP_VM, 0, 0) == 0;
                if (isSame)
                    _firsts[*i] = known;  // The sort is stable: the first one is the first of all.
                else
                    ++spaces;
            }
        }
        _isAlone.push_back(spaces == 1);
        const bool hasSwap = std::any_of(first, last, [&](std::size_t i) { return processes[i].hasSwap; });
        _swapCaches.push_back(_seesFrames && spaces > 1 && hasSwap ? std::make_unique<SwapCache>() : nullptr);
        first = last;
    }
    _lineages.resize(_seesFrames ? 1 : _isAlone.size());
    for (std::size_t family = 0; family < _isAlone.size(); ++family) {
        auto& lineages = _lineages[_seesFrames ? 0 : family];
        if (!_isAlone[family] && !lineages) lineages = std::make_unique<Lineages>();
    }
    if (_seesFrames && !_lineages.empty() && !_lineages[0]) _lineages[0] = std::make_unique<Lineages>();
}

LineageUse Families::useOf(std::size_t process, bool hasMergedPages) {
    const std::uint32_t family = _families[process];
    if (_isAlone[family] && (!hasMergedPages || !_seesFrames)) return {};
    return {_lineages[_seesFrames ? 0 : family].get(), _seesFrames, _swapCaches[family].get()};
}

void Families::settle() {
    for (const auto& swapCache : _swapCaches)
        if (swapCache) swapCache->settle(*_lineages[0]);
}

}  // namespace zorbel
