#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "linux/TaskSnapshot.h"

namespace zorbel {

/// One task of a run, as it was read.
struct ReadTask {
    TaskSnapshot* snapshot = nullptr;
    std::size_t firstOfAddressSpace =
        0;  ///< Index of the task whose address space this one uses: its own, mostly.
    const Lineages* lineages = nullptr;  ///< Where its regions have noted their pages.
    std::uint64_t stackStart = 0;        ///< 0 where it is not known.
};

/// Settles what depends on several tasks, when all are read: gives the objects their ids, and says which
/// pages of a region count for objects that others map too.
///
/// Ids are given in the order of tasks and regions, so equal states of memory get equal ids. Cost: linear in
/// the number of regions, and what the kernel takes to count the pages of mapped files.
void settle(std::vector<ReadTask>& tasks, const SnapshotServices& services);

/// How many pages of the kernel's own areas the tasks map: those of BPF arrays. Each map counts once, as far
/// as it is known which one a region maps. When settled.
std::uint64_t mappedKernelPages(const std::vector<ReadTask>& tasks);

}  // namespace zorbel
