#include "linux/pages/SwapCache.h"

#include <algorithm>
#include <span>

#include "linux/pages/PageTables.h"

namespace zorbel {

namespace {

// A word has a bit for a slot that several address spaces have, 5 bits for the area, and 26 for the place in
// it, counted from 1. Places that do not fit, from 256 GiB of small pages on, are kept where the different
// slots of one address are.
constexpr std::uint32_t kIsOfSeveral = 0x80000000;
constexpr std::uint32_t kLookAmongDifferent = 0xFFFFFFFF;
constexpr unsigned kPlaceBits = 26;
constexpr std::uint64_t kPlaceMask = (std::uint64_t{1} << kPlaceBits) - 1;

/// 0 if the slot does not fit.
std::uint32_t packed(std::uint64_t slot) {
    const std::uint64_t place = slot & ((std::uint64_t{1} << PageWord::kPlaceBitsOfSlot) - 1);
    if (place + 1 >= kPlaceMask) return 0;
    return static_cast<std::uint32_t>((place + 1) | slot >> PageWord::kPlaceBitsOfSlot << kPlaceBits);
}

std::uint64_t unpacked(std::uint32_t word) {
    const std::uint64_t area = (word & ~kIsOfSeveral) >> kPlaceBits;
    return ((word & kPlaceMask) - 1) | area << PageWord::kPlaceBitsOfSlot;
}

}  // namespace

void SwapCache::Slots::add(std::uint64_t slot, bool isOfSeveral) {
    _lowest = std::min(_lowest, slot);
    if (_count > kMost) return;
    const auto known = std::span(_slots).first(_count);
    const auto index = static_cast<std::size_t>(std::ranges::find(known, slot) - known.begin());
    if (index < _count) {
        _isOfSeveral[index] = true;
    } else if (_count++ < kMost) {
        _slots[index] = slot;
        _isOfSeveral[index] = isOfSeveral;
    }
}

std::uint64_t SwapCache::Slots::chosen() const {
    std::uint64_t lowest = UINT64_MAX;
    for (std::size_t i = 0; _count <= kMost && i < _count; ++i)
        if (_isOfSeveral[i]) lowest = std::min(lowest, _slots[i]);
    return lowest != UINT64_MAX ? lowest : _lowest;
}

void SwapCache::noteSlot(std::uint64_t page, std::uint64_t slot) {
    FrameTable::Word& word = _slots.at(page);
    const std::uint32_t asWord = packed(slot);
    std::uint32_t known = word.load(std::memory_order_acquire);
    while (asWord != 0 && (known == 0 || (known | kIsOfSeveral) == (asWord | kIsOfSeveral))) {
        if ((known & kIsOfSeveral) != 0) return;
        if (word.compare_exchange_weak(known, known == 0 ? asWord : known | kIsOfSeveral,
                                       std::memory_order_acq_rel))
            return;
    }
    const std::lock_guard lock(_mutex);
    Slots& slots = _different[page];
    // What another thread has noted since is in the word that is replaced.
    known = word.exchange(kLookAmongDifferent, std::memory_order_acq_rel);
    if (known != 0 && known != kLookAmongDifferent) slots.add(unpacked(known), (known & kIsOfSeveral) != 0);
    slots.add(slot, false);
}

void SwapCache::noteFrame(Lineages::Member member, std::uint64_t page, std::uint64_t frame) {
    const std::lock_guard lock(_mutex);
    _frames.push_back({member, page, frame});
}

std::optional<std::uint64_t> SwapCache::_slotFor(std::uint64_t page) {
    const std::uint32_t word = _slots.at(page).load(std::memory_order_relaxed);
    if (word == 0) return std::nullopt;
    if (word != kLookAmongDifferent) return unpacked(word);
    const auto found = _different.find(page);
    return found == _different.end() ? std::nullopt : std::optional(found->second.chosen());
}

void SwapCache::settle(Lineages& lineages) {
    for (const KeptFrame& kept : _frames) {
        Lineages::Holder holder(lineages, kept.member);
        if (const auto slot = _slotFor(kept.page))
            holder.holdSlot(*slot);
        else
            holder.holdFrame(kept.frame);
    }
    _frames.clear();
}

}  // namespace zorbel
