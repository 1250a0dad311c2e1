#pragma once

#include <cstdint>

#include "model/ZBMemoryCategory.h"

namespace zorbel {

/// The totals of a table: bytes, and a number of regions.
struct SizeTotals {
    std::uint64_t totalDirtySize = 0;
    std::uint64_t totalSwappedSize = 0;
    std::uint64_t totalCleanSize = 0;
    std::uint64_t totalReclaimableSize = 0;
    std::uint64_t totalWiredSize = 0;
    std::uint32_t totalRegions = 0;
};

inline SizeTotals totalsOf(const ZBMemoryCategory& category) {
    return {category.totalDirtySize(), category.totalSwappedSize(),
            category.totalCleanSize(), category.totalReclaimableSize(),
            category.totalWiredSize(), static_cast<std::uint32_t>(category.totalRegions())};
}

}  // namespace zorbel
