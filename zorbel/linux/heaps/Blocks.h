#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "linux/heaps/HeapOwners.h"

namespace zorbel {

/// A kind of block that an allocator maps, recognized by what is written at its start. The kernel merges
/// mappings that touch, so a region may be a row of blocks of several kinds.
struct BlockKind {
    Tag tag;
    /// Size of the block that begins at the address, 0 if it is none. What is mapped there reaches up to the
    /// end; behind that, memory may be reserved.
    std::uint64_t (*sizeAt)(const HeapEvidence& evidence, std::uint64_t address, std::uint64_t end);
};

/// Adds what begins with blocks of these kinds, in the regions that are large enough for one: from the start
/// of a region, block by block, up to what is none. Looks only at pages that are in memory, so the process
/// never waits for one; at most kMostBlocks of a process, about 2 us each.
void findBlocks(const HeapEvidence& evidence, std::span<const BlockKind> kinds,
                std::vector<HeapPiece>& pieces);

inline constexpr std::size_t kMostBlocks = 2048;
inline constexpr std::uint64_t kSmallestBlock = 128 << 10;  ///< In bytes.

}  // namespace zorbel
