// PartitionAlloc, the allocator of Chromium and its like.
//
// Evidence: the program is one of them, and a stretch of memory has the layout of a pool
// (partition_address_space): 8 GiB or more, aligned to that, in super pages of 2 MiB. The first 16 KiB of
// each super page have guards around the page that describes it, and what is allocated begins behind these.

#include <algorithm>

#include "linux/heaps/HeapOwners.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kSmallestPool = std::uint64_t{8} << 30;
constexpr std::uint64_t kSuperPage = 2 << 20;
constexpr std::uint64_t kGuardedStart = 16 << 10;

constexpr std::string_view kPrograms[] = {"chrome", "chromium", "headless_shell", "electron",
                                          "libcef", "msedge",   "brave"};

/// Whether what can be accessed begins behind the guarded start of a super page, or with its description.
bool isPool(const HeapEvidence::Stretch& stretch) {
    if (stretch.size() < kSmallestPool || stretch.start() % kSmallestPool != 0) return false;
    bool isAccessible = false;
    std::size_t starts = 0;
    for (const SnapshotRegion& region : stretch.regions) {
        const bool wasAccessible = isAccessible;
        isAccessible = region.protection != 0;
        if (!isAccessible || wasAccessible) continue;
        const std::uint64_t place = region.start % kSuperPage;
        if (place == 0) return false;
        if (place <= kGuardedStart) ++starts;
    }
    return starts != 0;
}

}  // namespace

void findPartitionAllocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    if (!evidence.runsAny(kPrograms)) return;
    for (const HeapEvidence::Stretch& stretch : evidence.stretches())
        if (isPool(stretch)) pieces.push_back({stretch.start(), stretch.end(), Tag::kPartitionAlloc});
}

}  // namespace zorbel
