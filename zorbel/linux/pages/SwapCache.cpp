#include "linux/pages/SwapCache.h"

namespace zorbel {

namespace {

// A slot is a place in one of 32 areas. 28 bits of the place, 1 TiB on small pages, and 4 of the area fit
// into a word.
constexpr unsigned kPlaceBits = 28;
constexpr std::uint64_t kPlaceMask = (std::uint64_t{1} << kPlaceBits) - 1;

std::uint32_t packed(std::uint64_t slot) {
    return static_cast<std::uint32_t>((slot & kPlaceMask) | (slot >> 32) << kPlaceBits);
}
std::uint64_t unpacked(std::uint32_t word) {
    return (word & kPlaceMask) | std::uint64_t{word >> kPlaceBits} << 32;
}

}  // namespace

void SwapCache::noteSlot(std::uint64_t page, std::uint64_t slot) {
    _slots.at(page).store(packed(slot) + 1, std::memory_order_relaxed);
}

void SwapCache::noteFrame(Lineages::Member member, std::uint64_t page, std::uint64_t frame) {
    const std::lock_guard lock(_mutex);
    _frames.push_back({member, page, frame});
}

void SwapCache::settle(Lineages& lineages) {
    for (const KeptFrame& kept : _frames) {
        const std::uint32_t word = _slots.at(kept.page).load(std::memory_order_relaxed);
        Lineages::Holder holder(lineages, kept.member);
        if (word != 0)
            holder.holdSlot(unpacked(word - 1));
        else
            holder.holdFrames(kept.frame);
    }
    _frames.clear();
}

}  // namespace zorbel
