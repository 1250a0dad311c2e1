#pragma once

#include <cstdint>
#include <string_view>

namespace zorbel {

/// What /proc/vmstat shows about lazily freed pages (MADV_FREE).
struct VmStatistics {
    bool hasLazyPages = false;  ///< Whether there ever was one since the machine started.
    /// About how many there are now: lists of pages that belong to files hold them too, so they are what is
    /// on those lists beyond the page cache. Pages on their way to a list make it wrong by some hundreds.
    /// Too low by the locked pages of files, which are on no such list.
    std::uint64_t lazyPages = 0;
    std::uint64_t lockedPages = 0;  ///< By mlock(), of files or not.
};

VmStatistics parseVmStatistics(std::string_view text);

}  // namespace zorbel
