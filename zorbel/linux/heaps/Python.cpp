// Python's small objects.
//
// They are in arenas of 1 MiB, or 256 KiB before 3.10 (Objects/obmalloc.c). Each begins with a pool: the
// number of objects in use, a free one within the pool, two neighbours, and in the last words which arena,
// which class of sizes, and how far the pool is used.

#include <array>
#include <utility>

#include "linux/heaps/Blocks.h"

namespace zorbel {

namespace {

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

constexpr BlockKind kKinds[] = {{Tag::kPythonObjects, sizeOfPythonArena}};

}  // namespace

const BlockOwner kPython = {{"python", "libpython"}, kKinds};

}  // namespace zorbel
