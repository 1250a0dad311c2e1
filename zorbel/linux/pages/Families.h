#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "linux/pages/Lineages.h"
#include "linux/pages/SwapCache.h"

namespace zorbel {

/// How a process notes its private pages, where another target may have them in common with it.
struct LineageUse {
    Lineages* lineages = nullptr;  ///< Null where none can.
    /// Whether frames and slots identify pages. Without that right, addresses do, among the members of a
    /// family.
    bool seesFrames = true;
    /// Whether it also notes pages that only one address space maps: where two processes may have the same
    /// one, and nothing else shows that.
    bool notesExclusive = false;
    bool isTwin = false;             ///< Whether it uses the address space of a task before it.
    SwapCache* swapCache = nullptr;  ///< Null where no member of the family has a page in swap.
};

/// Which of the processes of a run may have private memory in common.
///
/// Private pages come to be shared by fork, and exec gives all of them up. A new program gets its stack at a
/// place of its own, which its children inherit: so processes whose stacks begin at the same address are a
/// family, and processes of different families share nothing but what KSM has merged. Only families of
/// several address spaces have to look at single pages, and of a usual machine those are few.
class Families {
  public:
    struct Process {
        /// A thread that has the memory of the process: its first one, unless that has ended before others.
        /// 0 where none is known, as for a zombie.
        std::int32_t thread = 0;
        std::uint64_t stackStart = 0;  ///< 0 where it is not known: such processes count as one family.
        bool hasSwap = false;          ///< Whether it has pages in swap.
    };

    /// Whether a thread has memory now.
    using HasMemory = std::function<bool(std::int32_t thread)>;

    /// Without the right to see frames, pages are told apart by their addresses. Without the right to see
    /// their flags, nothing is known of the swap cache.
    Families(std::span<const Process> processes, bool seesFrames, bool seesFlags, const HasMemory& hasMemory);

    /// The index of the first process that has the same address space, as after vfork().
    [[nodiscard]] std::size_t firstOfAddressSpace(std::size_t process) const { return _firsts[process]; }

    /// How a process notes its private pages. One that may have pages merged by KSM may share them with any
    /// other.
    LineageUse useOf(std::size_t process, bool mayHaveMergedPages);

    /// When all processes are read.
    void settle();

  private:
    /// Finds the members of a family that have the same address space as one before them. Returns how many
    /// address spaces the family has.
    std::size_t _findAddressSpaces(std::span<const Process> processes, std::span<const std::size_t> family,
                                   const HasMemory& hasMemory);

    bool _seesFrames;
    bool _comparesSpaces;  ///< Whether the kernel tells which processes use one address space.
    std::vector<std::size_t> _firsts;
    std::vector<std::uint32_t> _families;              ///< Of each process.
    std::vector<bool> _isAlone;                        ///< Of each family: whether it is one address space.
    std::vector<std::unique_ptr<Lineages>> _lineages;  ///< Of each family; with frames, one for all.
    std::vector<std::unique_ptr<SwapCache>> _swapCaches;  ///< Of each family; null where nothing is in swap.
};

}  // namespace zorbel
