#pragma once

#include <cstdint>
#include <string_view>

namespace zorbel {

/// What /proc/vmstat shows about lazily freed pages (MADV_FREE).
struct VmStatistics {
    bool hasLazyPages = false;  ///< Whether there ever was one since the machine started.
    /// About how many there are now: lists of pages that belong to files hold them too, so they are what is
    /// on those lists beyond the page cache. Pages on their way to a list make it wrong by some hundreds.
    std::uint64_t lazyPages = 0;
};

VmStatistics parseVmStatistics(std::string_view text);

}  // namespace zorbel
