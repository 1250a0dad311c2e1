#include "base/Allocation.h"

#include <malloc.h>

#include <algorithm>

#include "base/Parallel.h"

namespace zorbel {

void setUpAllocation() {
    constexpr int kMiB = 1 << 20;
    mallopt(M_MMAP_THRESHOLD, 32 * kMiB);  // The largest value that is allowed.
    mallopt(M_TRIM_THRESHOLD, 256 * kMiB);
    mallopt(M_TOP_PAD, kMiB);
    mallopt(M_ARENA_MAX, static_cast<int>(std::max(1U, processorCount() / 2)));
}

}  // namespace zorbel
