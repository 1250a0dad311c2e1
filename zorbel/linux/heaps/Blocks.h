#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

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

/// A runtime or allocator that can be told by its blocks.
struct BlockOwner {
    std::vector<std::string_view> files;  ///< Names of those that have its code; empty if any may.
    std::span<const BlockKind> kinds;
};
// Each in a source file of its own, with what it writes.
extern const BlockOwner kErlang;
extern const BlockOwner kGlibc;
extern const BlockOwner kPython;
extern const BlockOwner kRuby;
extern const BlockOwner kTransientRuby;

// findBlocks() adds what begins with blocks of those that the process runs, in regions that are large enough
// for one: from the start of a region, block by block, up to what is none. It looks only at pages that are in
// memory, so the process never waits for one; at most kMostLooks times for a process, about 2 us each.
inline constexpr std::size_t kMostLooks = 16384;
inline constexpr std::uint64_t kSmallestBlock = 128 << 10;  ///< In bytes.

}  // namespace zorbel
