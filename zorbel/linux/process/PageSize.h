#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace zorbel {

/// Bytes of a page; a power of two.
inline std::uint64_t pageSize() {
    static const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return kPageSize;
}

/// Bytes of the stack that a thread has in the kernel: THREAD_SIZE of the architectures in use, 8 KiB where
/// words have 32 bits, else 16 KiB or one page.
inline std::uint64_t kernelStackSize() {
    constexpr std::uint64_t kStackSize = sizeof(void*) == 8 ? 16384 : 8192;
    return std::max(kStackSize, pageSize());
}

}  // namespace zorbel
