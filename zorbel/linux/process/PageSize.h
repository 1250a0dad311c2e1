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

/// Pages of a size that the kernel prints in KiB.
inline std::uint32_t pagesOfKibibytes(std::uint64_t kibibytes) {
    return static_cast<std::uint32_t>(kibibytes * 1024 / pageSize());
}

/// Bytes of a thread's stack in the kernel: THREAD_SIZE of the architectures in use. That is 8 KiB on 32-bit
/// machines and 16 KiB on others, but at least one page.
inline std::uint64_t kernelStackSize() {
    constexpr std::uint64_t kStackSize = sizeof(void*) == 8 ? 16384 : 8192;
    return std::max(kStackSize, pageSize());
}

}  // namespace zorbel
