// The images of a snapshot.

#include <algorithm>
#include <iterator>
#include <utility>

#include "linux/TaskSnapshot.h"

namespace zorbel {

void TaskSnapshot::_findImages(int processDirectory) {
    _images = LoadedImages::inRegions(_regions, _services.elfFiles, _directoryOfMemory(processDirectory));
    std::vector<std::uint64_t> cuts;
    const auto cutAt = [&](std::uint64_t address) {
        const SnapshotRegion* region = regionAtOrAfter(address);
        const bool isInside = region != nullptr && region->start < address;
        if (isInside && region->isPrivate && !region->isHuge) cuts.push_back(address);
    };
    const auto segments = _images.segments();
    /// Whether the next segment begins where this one ends, with the same name.
    const auto isContinued = [&](std::size_t i) {
        return i + 1 < segments.size() &&
               segments[i].location + segments[i].length == segments[i + 1].location &&
               segments[i].name == segments[i + 1].name;
    };
    for (std::size_t i = 0; i < segments.size(); ++i) {
        if (i == 0 || !isContinued(i - 1)) cutAt(segments[i].location);
        if (!isContinued(i)) cutAt(segments[i].location + segments[i].length);
    }
    if (!cuts.empty()) _split(std::move(cuts));
}

bool TaskSnapshot::_isSplit(const SnapshotRegion& region) const {
    // Those of the first splitting are in order.
    const auto whole = std::ranges::upper_bound(_splitRegions, region.start, {}, &SplitRegion::start);
    return whole != _splitRegions.begin() && region.end <= std::prev(whole)->end;
}

void TaskSnapshot::_split(std::vector<std::uint64_t> cuts) {
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    std::vector<SnapshotRegion> regions;
    std::vector<SplitRegion> splitNow;
    regions.reserve(_regions.size() + cuts.size());
    auto cut = cuts.begin();
    for (const SnapshotRegion& whole : _regions) {
        std::uint64_t start = whole.start;
        const auto addPart = [&](std::uint64_t end) {
            SnapshotRegion& part = regions.emplace_back(whole);
            part.start = start;
            part.end = end;
            part.offset += start - whole.start;
            start = end;
        };
        while (cut != cuts.end() && *cut <= whole.start) ++cut;
        if (cut != cuts.end() && *cut < whole.end && !_isSplit(whole))
            splitNow.push_back({whole.start, whole.end});
        for (; cut != cuts.end() && *cut < whole.end; ++cut) addPart(*cut);
        addPart(whole.end);
    }
    _regions = std::move(regions);
    _splitRegions.insert(_splitRegions.end(), splitNow.begin(), splitNow.end());
    std::ranges::sort(_splitRegions, {}, &SplitRegion::start);
}

}  // namespace zorbel
