#pragma once

#include <cstdint>

#include "inspect/platform/Records.h"
#include "model/Name.h"

namespace zorbel {

/// One region of a snapshot, ready to answer look-ups.
struct SnapshotRegion {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    RegionInfoRecord record;
    Name path;                      ///< Of the mapped file, fit to be printed; absent for anonymous memory.
    bool isPlainAnonymous = false;  ///< Private, no file, no name.

    [[nodiscard]] std::uint64_t size() const { return end - start; }
};

}  // namespace zorbel
