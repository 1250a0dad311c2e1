#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "linux/process/SnapshotRegion.h"
#include "linux/process/Threads.h"

namespace zorbel {

// The stacks of threads other than the first, whose stack the kernel names. Allocators put guards below their
// memory too, and coroutines have stacks within heaps, so neither a guard nor a stack pointer proves anything
// by itself. A region is the stack of a thread where there is a guard right below it, and
//
// * a thread's stack pointer lies in it, and it is no larger than what the C library maps for a thread, or
// has the
//   thread's descriptor at its top; or
// * it has no pointer, but just that size and a descriptor, and there are no more such regions than threads
// whose
//   pointer does not show. More would be the stacks of threads that have ended, which the C library keeps.
//
// A guard is a region without access, or pages of a mapping that were made a guard (MADV_GUARD_INSTALL),
// which the C library uses from 2.42 on. Stacks that the kernel has merged are separated at these.

/// Whether the region can hold stacks of threads.
bool mayHoldStacks(const SnapshotRegion& region);

/// Addresses at which to split regions, in ascending order, so that each stack is a region by itself: where
/// guards begin next to a stack pointer within a region. Calls forEachGuard with such regions; that calls
/// with the start of each run of guard pages, in ascending order.
using ForEachGuard =
    std::function<void(const SnapshotRegion&, const std::function<void(std::uint64_t start)>&)>;
std::vector<std::uint64_t> placesToSplit(std::span<const SnapshotRegion> regions, const ThreadStacks& stacks,
                                         const ForEachGuard& forEachGuard);

/// Whether there is a thread's descriptor at the top of the region; nothing if that may not be read.
using HasDescriptor = std::function<std::optional<bool>(const SnapshotRegion&)>;

/// Sets the kind of the regions that are stacks. Those of no other kind only; splits are the places above.
void findStacks(std::span<SnapshotRegion> regions, const ThreadStacks& stacks,
                std::span<const std::uint64_t> splits, const HasDescriptor& hasDescriptor);

/// Whether a thread's descriptor is among the words at the top of a stack, which begin at the address: on x86
/// it begins with its own address, which is repeated two words further (glibc, tcbhead_t).
bool holdsDescriptor(std::uint64_t address, std::span<const std::uint64_t> words);

}  // namespace zorbel
