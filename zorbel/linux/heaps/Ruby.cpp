// Ruby's objects.
//
// They are in pages of 16 KiB, or 64 KiB from 3.2 on, aligned to that (gc.c, heap_page_header). A page begins
// with the address of what describes it (heap_page), and among the first words of that is the address of the
// first object, which lies right behind the page's header.
//
// Contents of young objects are in a mapping of exactly 32 MiB, aligned to its blocks of 32 KiB, up to 3.2
// (transient_heap.c).

#include <algorithm>
#include <array>

#include "linux/heaps/Blocks.h"

namespace zorbel {

namespace {

/// Looks at one page in 128 KiB, which is the least that somebody else maps in between.
std::uint64_t sizeOfPages(const HeapEvidence& evidence, std::uint64_t address, std::uint64_t end) {
    constexpr std::uint64_t kPage = 16 << 10;
    constexpr std::uint64_t kLargestHeader = 64;
    constexpr std::uint64_t kFirstWords = 8;
    std::array<std::uint64_t, 1> word;
    if (address % kPage != 0 || !evidence.read(address, word)) return 0;
    const std::uint64_t description = word[0];
    if (description == 0 || description % sizeof word[0] != 0) return 0;
    bool isDescribed = false;
    for (std::uint64_t i = 0; i < kFirstWords && !isDescribed; ++i) {
        if (!evidence.read(description + i * sizeof word[0], word)) return 0;
        isDescribed = word[0] > address && word[0] <= address + kLargestHeader;
    }
    return isDescribed ? std::min(kSmallestBlock, (end - address) & ~(kPage - 1)) : 0;
}

std::uint64_t sizeOfTransientHeap(const HeapEvidence& /*evidence*/, std::uint64_t address,
                                  std::uint64_t end) {
    constexpr std::uint64_t kSize = 32 << 20;
    constexpr std::uint64_t kBlock = 32 << 10;
    return address % kBlock == 0 && end - address == kSize ? kSize : 0;
}

constexpr BlockKind kKinds[] = {{Tag::kRubyHeap, sizeOfPages}};
constexpr BlockKind kTransientKinds[] = {{Tag::kRubyTransientHeap, sizeOfTransientHeap}};

}  // namespace

const BlockOwner kRuby = {{"ruby", "libruby"}, kKinds};
const BlockOwner kTransientRuby = {{"libruby-2", "libruby-3.0", "libruby-3.1", "libruby-3.2"},
                                   kTransientKinds};

}  // namespace zorbel
