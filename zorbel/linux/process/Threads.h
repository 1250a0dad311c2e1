#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zorbel {

/// Where the threads of a process have their stacks, as far as that shows. The first thread is left out: the
/// kernel names its stack.
struct ThreadStacks {
    std::vector<std::uint64_t> pointers;  ///< Stack pointers, in ascending order.
    /// Threads that run at the moment, or whose pointer may not be seen.
    std::size_t unknown = 0;
    /// Bytes that the C library maps for a thread, guard included, if the program does not choose: the soft
    /// limit of the stack size; 0 where it is not known.
    std::uint64_t usualSize = 0;
};

/// From task/TID/syscall, which shows the stack pointer of a thread that waits, without stopping it, and from
/// limits. About 5 us a thread. The first takes the right to trace the process.
ThreadStacks stacksOfThreads(int processDirectory);

}  // namespace zorbel
