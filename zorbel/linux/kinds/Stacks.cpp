#include "linux/kinds/Stacks.h"

#include <algorithm>

#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kLargestGuard = 1 << 20;

bool holdsPointer(const SnapshotRegion& region, const ThreadStacks& stacks) {
    const auto pointer = std::ranges::lower_bound(stacks.pointers, region.start);
    return pointer != stacks.pointers.end() && *pointer < region.end;
}

/// Size of the guard that is a region by itself right below the one at the index; 0 if there is none.
std::uint64_t guardBelow(std::span<const SnapshotRegion> regions, std::size_t index) {
    if (index == 0) return 0;
    const SnapshotRegion& below = regions[index - 1];
    const bool isGuard = below.end == regions[index].start && below.isPlainAnonymous &&
                         below.protection == 0 && below.size() <= kLargestGuard;
    return isGuard ? below.size() : 0;
}

/// The guards of one region that lie next to stack pointers.
class Neighbours {
  public:
    Neighbours(const SnapshotRegion& region, const ThreadStacks& stacks)
        : _next(std::ranges::lower_bound(stacks.pointers, region.start)),
          _end(std::ranges::lower_bound(stacks.pointers, region.end)) {}

    void add(std::uint64_t guard) {
        if (_below != 0) _distance = guard - _below;
        if (_next != _end && *_next < guard && _below != 0) {
            _keep(_below);
            _keep(guard);
        }
        while (_next != _end && *_next < guard) ++_next;
        _below = guard;
    }

    /// With the end of the last stack, which may have other memory above it: it is as large as the one before
    /// it, or as usual.
    std::vector<std::uint64_t> finish(std::uint64_t regionEnd, std::uint64_t usualSize) {
        if (_next != _end && _below != 0) {
            _keep(_below);
            const std::uint64_t size = _distance != 0 ? _distance : usualSize;
            if (size != 0 && size < regionEnd - _below) _keep(_below + size);
        }
        return std::move(_kept);
    }

  private:
    void _keep(std::uint64_t place) {
        if (_kept.empty() || _kept.back() != place) _kept.push_back(place);
    }

    std::vector<std::uint64_t>::const_iterator _next;  ///< Pointer that no guard has been found above yet.
    std::vector<std::uint64_t>::const_iterator _end;
    std::uint64_t _below = 0;     ///< The last guard.
    std::uint64_t _distance = 0;  ///< Between the last two.
    std::vector<std::uint64_t> _kept;
};

}  // namespace

bool mayHoldStacks(const SnapshotRegion& region) {
    return region.isPlainAnonymous && region.protection == (SmapsEntry::kRead | SmapsEntry::kWrite);
}

std::vector<std::uint64_t> placesToSplit(std::span<const SnapshotRegion> regions, const ThreadStacks& stacks,
                                         const ForEachGuard& forEachGuard) {
    std::vector<std::uint64_t> splits;
    for (std::size_t i = 0; i < regions.size(); ++i) {
        const SnapshotRegion& region = regions[i];
        if (!mayHoldStacks(region) || guardBelow(regions, i) != 0 || !holdsPointer(region, stacks)) continue;
        Neighbours guards(region, stacks);
        forEachGuard(region, [&](std::uint64_t start) { guards.add(start); });
        const std::vector<std::uint64_t> kept = guards.finish(region.end, stacks.usualSize);
        splits.insert(splits.end(), kept.begin(), kept.end());
    }
    return splits;
}

void findStacks(std::span<SnapshotRegion> regions, const ThreadStacks& stacks,
                std::span<const std::uint64_t> splits, const HasDescriptor& hasDescriptor) {
    std::vector<std::size_t> candidates;  // Without a pointer.
    for (std::size_t i = 0; i < regions.size(); ++i) {
        SnapshotRegion& region = regions[i];
        if (!mayHoldStacks(region) || region.tag != Tag::kNone) continue;
        const std::uint64_t guard = guardBelow(regions, i);
        if (guard == 0 && !std::ranges::binary_search(splits, region.start)) continue;
        const std::uint64_t size = guard + region.size();
        if (holdsPointer(region, stacks)) {
            if (size <= stacks.usualSize || hasDescriptor(region).value_or(false)) region.tag = Tag::kStack;
        } else if (size == stacks.usualSize && hasDescriptor(region).value_or(true)) {
            candidates.push_back(i);
        }
    }
    if (candidates.size() > stacks.unknown) return;
    for (const std::size_t i : candidates) regions[i].tag = Tag::kStack;
}

bool holdsDescriptor(std::uint64_t address, std::span<const std::uint64_t> words) {
    constexpr std::size_t kAlignment = 64 / sizeof(std::uint64_t);
    for (std::size_t i = 0; i + 2 < words.size(); i += kAlignment) {
        const std::uint64_t own = address + i * sizeof(std::uint64_t);
        if (words[i] == own && words[i + 2] == own) return true;
    }
    return false;
}

}  // namespace zorbel
