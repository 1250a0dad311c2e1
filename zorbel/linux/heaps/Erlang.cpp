// Erlang's allocators.
//
// All take memory in carriers (erl_alloc_util.h, Carrier_t). A carrier begins with its size, a multiple of
// the page size, of which the lowest bit says that it is mapped and the next one that it holds a single
// block; then its neighbours in a list, and the allocator that it belongs to.

#include <array>

#include "linux/heaps/Blocks.h"
#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

std::uint64_t sizeOfCarrier(const HeapEvidence& evidence, std::uint64_t address, std::uint64_t end) {
    constexpr std::uint64_t kFlags = 7;
    constexpr std::uint64_t kIsMapped = 1;
    constexpr std::uint64_t kIsSingle = 2;
    std::array<std::uint64_t, 4> start;
    if (!evidence.read(address, start)) return 0;
    const auto [head, before, after, allocator] = start;
    const std::uint64_t size = head & ~kFlags;
    const bool isMapped = (head & kFlags & ~kIsSingle) == kIsMapped && size % pageSize() == 0;
    const bool isListed = before % pageSize() == 0 && after % pageSize() == 0;
    const bool hasOwner = allocator != 0 && allocator % 8 == 0;
    return isMapped && isListed && hasOwner && size >= kSmallestBlock && size <= end - address ? size : 0;
}

constexpr BlockKind kKinds[] = {{Tag::kErlangHeap, sizeOfCarrier}};

}  // namespace

const BlockOwner kErlang = {{"beam"}, kKinds};

}  // namespace zorbel
