#pragma once

#include <cstdint>

namespace zorbel {

/// Bytes of memory by their state. Used at every level, from a region to the summary.
struct SizeCounts {
    std::uint64_t dirty = 0;        ///< Resident; can't be dropped.
    std::uint64_t swapped = 0;      ///< Compressed or swapped out.
    std::uint64_t clean = 0;        ///< Resident; can be dropped and read again.
    std::uint64_t reclaimable = 0;  ///< Resident; the system may take it back at any time.
    std::uint64_t wired = 0;        ///< Resident; can't be swapped out. Also counted above.

    /// Bytes that are charged: swapped memory was dirty and still counts.
    [[nodiscard]] std::uint64_t charged() const { return dirty + swapped; }

    SizeCounts& operator+=(const SizeCounts& other) {
        dirty += other.dirty;
        swapped += other.swapped;
        clean += other.clean;
        reclaimable += other.reclaimable;
        wired += other.wired;
        return *this;
    }
    /// No size goes below 0.
    SizeCounts& operator-=(const SizeCounts& other) {
        const auto take = [](std::uint64_t& from, std::uint64_t size) { from -= size < from ? size : from; };
        take(dirty, other.dirty);
        take(swapped, other.swapped);
        take(clean, other.clean);
        take(reclaimable, other.reclaimable);
        take(wired, other.wired);
        return *this;
    }
    friend bool operator==(const SizeCounts&, const SizeCounts&) = default;
};

/// A row of a table: sizes, and the number of regions.
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
