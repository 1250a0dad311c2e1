// Go.
//
// Evidence: the program has Go's build id, a note with the owner "Go". The runtime places its heap at
// 0xc000000000 on 64-bit machines, in arenas of 64 MiB that it reserves one after another (runtime/malloc.go,
// mallocinit). If another mapping is in the way, it goes on at 0x1c000000000 and so on, up to 0x7fc000000000.
// Whatever else such a program maps without a file is the runtime's own (bitmaps, spans, page summaries,
// stacks of the system), unless it loads libraries, which have heaps too.

#include "linux/heaps/HeapOwners.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kFirstHint = 0xC0'0000'0000;
constexpr std::uint64_t kLastHint = 0x7FC0'0000'0000;
constexpr std::uint64_t kLargest = 64 << 20;  // Of what the runtime maps besides; programs may map more.
constexpr std::uint64_t kBetweenHints = 0x100'0000'0000;

/// Whether the region begins a chain of arenas.
bool isAtHint(const SnapshotRegion& region) {
    return region.start % kBetweenHints == kFirstHint && region.start <= kLastHint;
}

}  // namespace

void findGoHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    if (evidence.program() == nullptr || !evidence.program()->isGo) return;
    const bool hasLibraries = evidence.runs("libc") || evidence.runs("ld");
    std::uint64_t heapEnd = 0;
    for (const SnapshotRegion& region : evidence.regions()) {
        if (!region.isPlainAnonymous) continue;
        if (region.start == heapEnd || isAtHint(region)) {
            pieces.push_back({region.start, region.end, Tag::kGoHeap});
            heapEnd = region.end;
        } else if (!hasLibraries && region.size() < kLargest) {
            pieces.push_back({region.start, region.end, Tag::kGoRuntime});
        }
    }
}

}  // namespace zorbel
