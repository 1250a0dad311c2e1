#include "linux/kinds/Stacks.h"

#include <algorithm>

#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

bool holdsPointer(const SnapshotRegion& region, const ThreadStacks& stacks) {
    const auto pointer = std::ranges::lower_bound(stacks.pointers, region.start);
    return pointer != stacks.pointers.end() && *pointer < region.end;
}

/// Whether a guard that is a region by itself lies right below the region at the index.
bool isAboveGuard(std::span<const SnapshotRegion> regions, std::size_t index) {
    if (index == 0) return false;
    const SnapshotRegion& below = regions[index - 1];
    return below.end == regions[index].start && below.isPlainAnonymous && below.protection == 0;
}

}  // namespace

bool mayHoldStacks(const SnapshotRegion& region) {
    return region.isPlainAnonymous && region.protection == (SmapsEntry::kRead | SmapsEntry::kWrite);
}

std::vector<std::uint64_t> placesToSplit(std::span<const SnapshotRegion> regions, const ThreadStacks& stacks,
                                         const FindGuards& findGuards) {
    std::vector<std::uint64_t> splits;
    for (std::size_t i = 0; i < regions.size(); ++i) {
        const SnapshotRegion& region = regions[i];
        if (!mayHoldStacks(region) || isAboveGuard(regions, i) || !holdsPointer(region, stacks)) continue;
        const std::size_t before = splits.size();
        findGuards(region, splits);
        // The last stack may have other memory above it. All are as large as the ones before it, or as usual.
        const std::size_t guards = splits.size() - before;
        if (guards == 0) continue;
        const std::uint64_t last = splits.back();
        const std::uint64_t size = guards > 1 ? last - splits[splits.size() - 2] : stacks.usualSize;
        if (size != 0 && size < region.end - last) splits.push_back(last + size);
    }
    return splits;
}

void findStacks(std::span<SnapshotRegion> regions, const ThreadStacks& stacks,
                std::span<const std::uint64_t> splits) {
    std::vector<std::size_t> candidates;  // Without a pointer, but of the usual size.
    for (std::size_t i = 0; i < regions.size(); ++i) {
        SnapshotRegion& region = regions[i];
        if (!mayHoldStacks(region) || region.tag != Tag::kNone) continue;
        const bool isAbove = isAboveGuard(regions, i);
        if (!isAbove && !std::ranges::binary_search(splits, region.start)) continue;
        if (holdsPointer(region, stacks))
            region.tag = Tag::kStack;
        else if (isAbove && regions[i - 1].size() + region.size() == stacks.usualSize)
            candidates.push_back(i);
    }
    if (candidates.size() > stacks.unknown) return;
    for (const std::size_t i : candidates) regions[i].tag = Tag::kStack;
}

}  // namespace zorbel
