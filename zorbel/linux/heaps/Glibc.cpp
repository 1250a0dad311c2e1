// The C library's malloc (glibc).
//
// A large allocation is a mapping of its own (malloc/malloc.c, sysmalloc_mmap): a word with 0, then its size
// with the bit IS_MMAPPED. The size is a multiple of the page size.
//
// A further arena, or a part of one, is 64 MiB of address space, aligned to that (malloc/arena.c, heap_info):
// the address of the arena, which follows the first such part; the part before; the bytes in use; the bytes
// that can be accessed. Full ones touch.

#include <algorithm>
#include <array>

#include "linux/heaps/Blocks.h"
#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kArenaSize = 64 << 20;

std::uint64_t sizeOfLargeAllocation(const HeapEvidence& evidence, std::uint64_t address, std::uint64_t end) {
    constexpr std::uint64_t kFlags = 7;
    constexpr std::uint64_t kIsMapped = 2;
    std::array<std::uint64_t, 2> start;
    if (!evidence.read(address, start)) return 0;
    const std::uint64_t size = start[1] & ~kFlags;
    const bool isPlausible = start[0] == 0 && (start[1] & kFlags) == kIsMapped && size % pageSize() == 0;
    return isPlausible && size >= kSmallestBlock && size <= end - address ? size : 0;
}

std::uint64_t sizeOfArena(const HeapEvidence& evidence, std::uint64_t address, std::uint64_t end) {
    constexpr std::uint64_t kLargestHeader = 256;
    std::array<std::uint64_t, 4> start;
    if (address % kArenaSize != 0 || !evidence.read(address, start)) return 0;
    const auto [arena, before, used, accessible] = start;
    if (arena % kArenaSize == 0 || arena % kArenaSize > kLargestHeader) return 0;
    const bool isFirst = arena - address < kArenaSize;
    if (isFirst ? before != 0 : before == 0 || before % kArenaSize != 0) return 0;
    const std::uint64_t mapped = std::min(end - address, kArenaSize);
    return used <= accessible && accessible == mapped ? mapped : 0;
}

constexpr BlockKind kKinds[] = {{Tag::kMallocLarge, sizeOfLargeAllocation}, {Tag::kMallocSmall, sizeOfArena}};

}  // namespace

const BlockOwner kGlibc = {{}, kKinds};  // Any program may be linked with it statically.

}  // namespace zorbel
