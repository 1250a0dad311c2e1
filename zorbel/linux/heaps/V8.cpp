// V8, as Node.js and its like have it.
//
// Evidence: the program or one of its libraries is V8 or embeds it, which the name of the file shows. V8
// keeps its objects in pages of 256 KiB, aligned to that, each mapped by itself at a random address below
// 2^46 (heap/memory-allocator, base/platform: GetRandomMmapAddr): far below where the kernel places mappings
// by itself. Objects that are larger have a mapping of their own, which begins like a page. Where pointers
// are compressed, all of that is in one reservation (a cage) of 4 GiB, aligned to its size. What can be
// executed without being a file's is generated code.

#include "linux/heaps/HeapOwners.h"
#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kPageOfV8 = 256 << 10;
constexpr std::uint64_t kEndOfHints = std::uint64_t{1} << 46;
constexpr std::uint64_t kCage = std::uint64_t{4} << 30;

constexpr std::string_view kEmbedders[] = {"node", "libnode.so", "libv8", "electron",
                                           "deno", "d8",         "chrom", "headless_shell"};

}  // namespace

void findV8Heap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    if (!evidence.runsAny(kEmbedders)) return;
    std::uint64_t cage = 0;  // The one that the last regions were in.
    std::uint64_t end = 0;   // Of the last region.
    for (const SnapshotRegion& region : evidence.regions()) {
        const bool follows = region.start == end;
        end = region.end;
        if (!region.isPlainAnonymous) continue;
        // A cage is reserved whole, and its parts stay next to each other.
        if (!follows && region.start % kCage == 0 && evidence.mappedFrom(region.start) >= kCage)
            cage = region.start;
        const bool isInCage = cage != 0 && region.start - cage < kCage;
        const bool isPage = region.start % kPageOfV8 == 0 && region.start < kEndOfHints;
        if (region.has(SmapsEntry::kExecute))
            pieces.push_back({region.start, region.end, Tag::kJitCode});
        else if (isInCage || isPage)
            pieces.push_back({region.start, region.end, Tag::kV8Heap});
    }
}

}  // namespace zorbel
