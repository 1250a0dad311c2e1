// The C library's malloc (glibc), and the small objects of Python, which come from it or from mmap.
//
// Evidence is what they write at the start of each block:
//
// * A large allocation is a mapping of its own (malloc/malloc.c, sysmalloc_mmap): a word with 0, then its
// size
//   with the bit IS_MMAPPED. The size is a multiple of the page size.
// * A further arena, or a part of one, is 64 MiB of address space, aligned to that (malloc/arena.c,
//   heap_info): the address of the arena, which follows the first such block; the block before; the bytes in
//   use; the bytes that can be accessed. Full ones touch.
// * Python takes its small objects from arenas of 1 MiB, or 256 KiB before 3.10 (Objects/obmalloc.c). Each
//   begins with a pool: the number of objects in use, a free one within the pool, two neighbours, and in
//   the last words which arena, which class of sizes, and how far the pool is used.

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

std::uint64_t sizeOfPythonArena(const HeapEvidence& evidence, std::uint64_t address, std::uint64_t end) {
    constexpr std::uint32_t kMostClasses = 64;
    struct Version {
        std::uint64_t arena;
        std::uint32_t pool;
    };
    for (const auto& [arena, pool] : {Version{1 << 20, 16384}, Version{256 << 10, 4096}}) {
        std::array<std::uint64_t, 6> start;
        // Pools are aligned, arenas are not.
        const std::uint64_t first = (address + pool - 1) & ~(std::uint64_t{pool} - 1);
        if (end - address < arena || !evidence.read(first, start)) continue;
        const std::uint64_t inUse = start[0] & 0xFFFFFFFF;
        const auto sizeClass = static_cast<std::uint32_t>(start[4] >> 32);
        const auto nextOffset = static_cast<std::uint32_t>(start[5]);
        const auto lastOffset = static_cast<std::uint32_t>(start[5] >> 32);
        const std::uint32_t objectSize = (sizeClass + 1) * 16;
        const bool isPool = sizeClass < kMostClasses && lastOffset == pool - objectSize &&
                            nextOffset <= pool && inUse <= pool / objectSize &&
                            (start[1] == 0 || start[1] - first < pool);
        if (isPool) return arena;
    }
    return 0;
}

}  // namespace

void findMallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    constexpr BlockKind kMalloc[] = {{Tag::kMallocLarge, sizeOfLargeAllocation},
                                     {Tag::kMallocSmall, sizeOfArena}};
    constexpr BlockKind kWithPython[] = {kMalloc[0], kMalloc[1], {Tag::kPythonObjects, sizeOfPythonArena}};
    if (!evidence.runs("libc.so") && !evidence.runs("libc-2")) return;
    if (evidence.runs("python") || evidence.runs("libpython"))
        findBlocks(evidence, kWithPython, pieces);
    else
        findBlocks(evidence, kMalloc, pieces);
}

}  // namespace zorbel
