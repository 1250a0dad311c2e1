// Allocators that replace the one of the C library, loaded as libraries.
//
// jemalloc: takes memory in multiples of 512 KiB from 2 MiB on, and keeps it (opt.retain).
// mimalloc: segments of 32 MiB, aligned to that (MI_SEGMENT_SIZE of 64-bit machines).
// tcmalloc: moves the end of the data segment (sbrk) as long as it can, in the place of the C library.
//
// A thread's stack may have the size of such a piece, but has a guard below it.

#include <algorithm>

#include "linux/heaps/HeapOwners.h"
#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kLargestGuard = 1 << 20;

/// Calls with the regions that can be written and are not right above a guard.
template <typename Visit>
void forEachUnguarded(const HeapEvidence& evidence, const Visit& visit) {
    for (const HeapEvidence::Stretch& stretch : evidence.stretches())
        for (std::size_t i = 0; i < stretch.regions.size(); ++i) {
            const SnapshotRegion& region = stretch.regions[i];
            const bool isAboveGuard = i > 0 && stretch.regions[i - 1].protection == 0 &&
                                      stretch.regions[i - 1].size() <= kLargestGuard;
            if (region.protection == (SmapsEntry::kRead | SmapsEntry::kWrite) && !isAboveGuard) visit(region);
        }
}

}  // namespace

void findJemallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    constexpr std::uint64_t kStep = 512 << 10;
    constexpr std::uint64_t kSmallest = 2 << 20;
    if (!evidence.runs("libjemalloc")) return;
    forEachUnguarded(evidence, [&](const SnapshotRegion& region) {
        if (region.size() >= kSmallest && region.size() % kStep == 0)
            pieces.push_back({region.start, region.end, Tag::kJemalloc});
    });
}

void findMimallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    constexpr std::uint64_t kSegment = 32 << 20;
    if (!evidence.runs("libmimalloc")) return;
    std::uint64_t end = 0;  // Of the segments that are known, which become accessible piece by piece.
    forEachUnguarded(evidence, [&](const SnapshotRegion& region) {
        if (region.start % kSegment != 0 && region.start >= end) return;
        pieces.push_back({region.start, region.end, Tag::kMimalloc});
        end = (region.end + kSegment - 1) & ~(kSegment - 1);
    });
}

void findTcmallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    if (!evidence.runs("libtcmalloc") && !evidence.runs("libtcmalloc_minimal")) return;
    for (const SnapshotRegion& region : evidence.regions())
        if (region.tag == Tag::kSbrk) pieces.push_back({region.start, region.end, Tag::kTcmalloc});
}

}  // namespace zorbel
