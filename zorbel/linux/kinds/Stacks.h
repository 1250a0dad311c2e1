#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "linux/process/SnapshotRegion.h"
#include "linux/process/Threads.h"

namespace zorbel {

// The stacks of threads other than the first, whose stack the kernel names. Allocators put guards below their
// memory too, so a guard proves nothing. A region is the stack of a thread only where
//
// * a thread's stack pointer lies in it, and there is a guard right below it: a region without access, or
//   pages of a mapping that were made a guard (MADV_GUARD_INSTALL), which the C library uses from 2.42 on.
//   Stacks that the kernel has merged are separated at these.
// * It has no pointer, but its size and that of its guard together are what the C library maps for a thread,
//   and there are no more such regions than threads whose pointer does not show. More could be the stacks
//   of threads that have ended, which the C library keeps for the next ones.
//
// Without a guard, a stack may be anywhere in a larger piece of memory, so it is not named.

/// Whether the region can hold stacks of threads.
bool mayHoldStacks(const SnapshotRegion& region);

/// Addresses at which to split regions, so that each stack is a region by itself: where guards begin in
/// regions that hold a stack pointer. Calls findGuards with such a region; it adds the addresses at which the
/// region's runs of guard pages begin.
using FindGuards = std::function<void(const SnapshotRegion&, std::vector<std::uint64_t>& starts)>;
std::vector<std::uint64_t> placesToSplit(std::span<const SnapshotRegion> regions, const ThreadStacks& stacks,
                                         const FindGuards& findGuards);

/// Sets the kind of the regions that are stacks. Those of no other kind only; splits are the places above.
void findStacks(std::span<SnapshotRegion> regions, const ThreadStacks& stacks,
                std::span<const std::uint64_t> splits);

}  // namespace zorbel
