// What a snapshot finds out beyond smaps: images, and single pages.

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <span>

#include "linux/TaskSnapshot.h"
#include "linux/kinds/RegionKinds.h"
#include "linux/pages/Pagemap.h"
#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

/// Moves pages from one record's count to the other's, but not more than there are: the counts were read
/// earlier.
void move(std::uint32_t RegionInfoRecord::*count, std::uint32_t pages, RegionInfoRecord& from,
          RegionInfoRecord& to) {
    to.*count = std::min(pages, from.*count);
    from.*count -= to.*count;
}

/// Divides the pages of a region among its parts. Before the call, every part's record has the counts of the
/// whole region. The largest part gets what the others leave: so no page is lost and the fewest entries are
/// read.
void sizeParts(std::span<SnapshotRegion> parts, Pagemap& pagemap) {
    if (parts.size() < 2) return;
    SnapshotRegion& largest = *std::max_element(
        parts.begin(), parts.end(), [](const auto& a, const auto& b) { return a.size() < b.size(); });
    RegionInfoRecord& rest = largest.record;
    const bool isEmpty = rest.pages_resident + rest.pages_swapped_out == 0;
    const bool isWired = rest.user_wired_count != 0;
    for (SnapshotRegion& part : parts) {
        if (&part == &largest) continue;
        const PageCounts counts =
            isEmpty ? PageCounts() : pagemap.count(part.start, part.end, part.record.external_pager != 0);
        move(&RegionInfoRecord::pages_resident, counts.resident, rest, part.record);
        move(&RegionInfoRecord::pages_dirtied, counts.own, rest, part.record);
        move(&RegionInfoRecord::pages_swapped_out, counts.swapped, rest, part.record);
        // Pagemap does not show lazily freed pages. They are usually a heap's, which is the large part.
        part.record.pages_reusable = 0;
    }
    rest.pages_reusable = std::min(rest.pages_reusable, rest.pages_resident);
    for (SnapshotRegion& part : parts) {
        RegionInfoRecord& record = part.record;
        record.user_wired_count = isWired ? record.pages_resident : 0;
        if (part.path.isPresent()) continue;
        record.share_mode =
            record.pages_resident + record.pages_swapped_out == 0 ? kShareModeEmpty : kShareModePrivate;
    }
}

}  // namespace

void TaskSnapshot::_findImages(ElfFiles& files, int processDirectory) {
    _images = LoadedImages::inRegions(_regions, files, _directoryOfMemory(processDirectory));
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
    if (!cuts.empty()) _split(std::move(cuts), processDirectory);
}

void TaskSnapshot::_split(std::vector<std::uint64_t> cuts, int processDirectory) {
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    Pagemap pagemap(_directoryOfMemory(processDirectory));
    std::vector<SnapshotRegion> regions;
    regions.reserve(_regions.size() + cuts.size());
    auto cut = cuts.begin();
    for (const SnapshotRegion& whole : _regions) {
        const std::size_t first = regions.size();
        std::uint64_t start = whole.start;
        const auto addPart = [&](std::uint64_t end) {
            SnapshotRegion& part = regions.emplace_back(whole);
            part.start = start;
            part.end = end;
            part.record.offset += start - whole.start;
            if (start != whole.start && whole.hasOwnObject()) part.record.object_id = _objectIds.newId();
            start = end;
        };
        for (; cut != cuts.end() && *cut < whole.end; ++cut) addPart(*cut);
        addPart(whole.end);
        sizeParts(std::span(regions).subspan(first), pagemap);
    }
    _regions = std::move(regions);
    findAnonymousKinds(_regions);
}

KernReturn TaskSnapshot::queryPages(int processDirectory, std::uint64_t address, std::uint64_t count,
                                    std::int32_t* dispositions) const {
    std::fill_n(dispositions, count, 0);
    Pagemap pagemap(_directoryOfMemory(processDirectory));
    if (!pagemap.isOpen())
        return errno == ENOENT || errno == ESRCH ? kKernInvalidArgument : kernReturnFromErrno(errno);
    const std::uint64_t end = address + count * pageSize();
    for (std::uint64_t at = address; at < end;) {
        const SnapshotRegion* region = regionAtOrAfter(at);
        if (region == nullptr || region->start >= end) break;
        const std::uint64_t start = std::max(region->start, at);
        const std::uint64_t stop = std::min(region->end, end);
        at = stop;
        // [vsyscall] is above the addresses of processes and has no entries in pagemap.
        if (region->record.user_tag == static_cast<std::uint32_t>(Tag::kVsyscall)) continue;
        const int error = pagemap.read(start, (stop - start) / pageSize(), region->record.external_pager != 0,
                                       dispositions + (start - address) / pageSize());
        if (error == ESRCH) return kKernInvalidArgument;
        if (error != 0) return kernReturnFromErrno(error);
    }
    return kKernSuccess;
}

}  // namespace zorbel
