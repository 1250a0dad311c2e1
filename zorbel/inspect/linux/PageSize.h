#pragma once

#include <unistd.h>

#include <cstdint>

namespace zorbel {

/// Bytes of a page; a power of two.
inline std::uint64_t pageSize() {
    static const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return kPageSize;
}

}  // namespace zorbel
