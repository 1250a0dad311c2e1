#pragma once

#include <cstdint>

namespace zorbel {

/// Bytes of some memory by what they are: the one record of sizes, from a region to the summary.
struct SizeCounts {
    std::uint64_t dirty = 0;        ///< Resident, and not to be dropped.
    std::uint64_t swapped = 0;      ///< Compressed or swapped out.
    std::uint64_t clean = 0;        ///< Resident, and dropped and read again as needed.
    std::uint64_t reclaimable = 0;  ///< Resident, and free for the system to take back.
    std::uint64_t wired = 0;        ///< Resident, and not to be swapped out; counted above as well.

    /// What somebody is charged for: what was dirty stays so in swap.
    [[nodiscard]] std::uint64_t charged() const { return dirty + swapped; }

    SizeCounts& operator+=(const SizeCounts& other) {
        dirty += other.dirty;
        swapped += other.swapped;
        clean += other.clean;
        reclaimable += other.reclaimable;
        wired += other.wired;
        return *this;
    }
};

/// A row of a table: sizes, and the number of regions that have them.
struct SizeTotals {
    SizeCounts sizes;
    std::uint32_t totalRegions = 0;

    SizeTotals& operator+=(const SizeTotals& other) {
        sizes += other.sizes;
        totalRegions += other.totalRegions;
        return *this;
    }
};

}  // namespace zorbel
