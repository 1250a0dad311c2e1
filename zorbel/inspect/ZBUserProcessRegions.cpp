#include "inspect/ZBUserProcess.h"

#include <algorithm>

namespace zorbel {

namespace {

/// Name of an image segment, from the system's name for it.
Name nameOfSegment(Name name) {
    static const Name kMachHeader("MACH_HEADER");
    static const Name kText("__TEXT");
    if (name == kMachHeader) return kText;  // The header is at the start of that segment.
    const std::size_t blank = name.text().find(' ');
    return blank == std::string::npos ? name : Name(std::string_view(name.text()).substr(0, blank));
}

}  // namespace

void ZBUserProcess::_gatherImageData() {
    _platform.symbolicator().forEachSymbolOwner(_task, [this](const SymbolOwner& owner) {
        for (const SymbolSegment& segment : owner.segments) {
            ZBImage& image = _images.emplace_back();
            image.setStart(segment.location);
            image.setSize(segment.length);
            image.setName(nameOfSegment(segment.name));
            image.setOwnerPath(owner.path);
        }
    });
    // Stable, so that reports are reproducible.
    std::ranges::stable_sort(_images, {}, &ZBImage::start);
}

void ZBUserProcess::_gatherMemoryData() {
    constexpr std::size_t kUsualRegions = 256;  // Enough for a program with some libraries.
    _memoryRegions.reserve(kUsualRegions);
    const bool breakDown = breakDownPhysZorbel();
    ZBImageEnumerator images(_images);
    enumerateRegions([&](std::uint64_t address, std::uint64_t size, const RegionInfoRecord& record,
                         int purgeableState, Name path) {
        if (!_isInSharedRegion(address)) {
            _memoryRegions.push_back(
                _regionFromRecord(address, size, record, purgeableState, path, breakDown, images));
            if (!record.shared.empty()) _setSharedParts(_memoryRegions.back(), record);
            return false;
        }
        const auto populate = [this](ZBMemoryRegion& piece, const RegionInfoRecord& whole) {
            return _populateMemoryRegionWithPageQueries(piece, whole);
        };
        if (_sharedRegionSplit.addRegions(address, size, _pageSize, record, images, populate)) return false;
        _addMessage(_textOfIncompleteData());
        return true;
    });
}

ZBMemoryRegion ZBUserProcess::_regionFromRecord(std::uint64_t address, std::uint64_t size,
                                                const RegionInfoRecord& record, int purgeableState, Name path,
                                                bool breakDown, ZBImageEnumerator& images) const {
    ZBMemoryRegion region = regionOfRecord(address, size, record);
    region.setWiredSize(std::uint64_t{_pageSize} * record.user_wired_count);
    _setSizes(region, record, purgeableState, breakDown);
    if (const ZBImage* image = images.nextImageForStart(address, address + size)) {
        region.setName(image->nameOfRegions());
        region.setDetailedName(image->ownerPath());
        region.setSegment(image->segment());
    } else {
        region.setSegment(SegmentCode::kNotInImage);
        _setNames(region, record, purgeableState, path, breakDown);
    }
    return region;
}

void ZBUserProcess::_setSizes(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                              bool breakDown) const {
    const std::uint64_t page = _pageSize;
    if (purgeableState == kPurgeableEmpty) {
        region.setReclaimableSize(region.size());
        return;
    }
    if (purgeableState == kPurgeableVolatile) {
        region.setReclaimableSize(page * record.pages_resident);
        return;
    }
    // Resident memory without a file is charged even if the kernel does not mark it as dirty: it can't be
    // read again from anywhere.
    const bool recalculate = record.external_pager == 0 && _anonymousDirtyRecalculation && !breakDown;
    const std::uint32_t dirtyPages =
        recalculate ? record.pages_resident - record.pages_reusable : record.pages_dirtied;
    const std::uint32_t cleanPages = record.pages_resident - dirtyPages - record.pages_reusable;
    region.setDirtySize(page * dirtyPages);
    region.setReclaimableSize(page * record.pages_reusable);
    region.setSwappedSize(page * record.pages_swapped_out);
    region.setCleanNonSpecSize(page * cleanPages);
}

void ZBUserProcess::_setSharedParts(ZBMemoryRegion& region, const RegionInfoRecord& record) {
    const std::uint64_t page = _pageSize;
    const bool isWired = record.user_wired_count != 0;
    const auto sizes = [&](std::uint64_t resident, std::uint64_t swapped, std::uint64_t reusable,
                           std::uint64_t clean, std::uint64_t wired) {
        return SizeCounts{.dirty = page * (resident - reusable - clean),
                          .swapped = page * swapped,
                          .clean = page * clean,
                          .reclaimable = page * reusable,
                          .wired = page * wired};
    };
    std::vector<SharedPart>& parts = _sharedParts.emplace_front();
    parts.reserve(record.shared.size());
    for (const SharedPages& shared : record.shared)
        parts.push_back(
            {shared.object_id,
             sizes(shared.pages_resident, shared.pages_swapped_out, shared.pages_reusable, shared.pages_clean,
                   isWired ? shared.pages_resident : 0),
             sizes(shared.object_pages_resident, shared.object_pages_swapped_out,
                   shared.object_pages_reusable, shared.object_pages_clean, shared.object_pages_wired)});
    region.setSharedParts(parts);
}

void ZBUserProcess::_setNames(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                              Name path, bool breakDown) {
    static const Name kMappedFile("mapped file");
    static const Name kUntagged("untagged (\"VM_ALLOCATE\")");
    if (path.isPresent() || record.external_pager != 0) {
        region.setName(kMappedFile);
        region.setDetailedName(path);
        return;
    }
    Name name = ZBMemoryRegion::categoryNameForTag(record.user_tag);
    if (name.text().empty()) name = kUntagged;
    if (purgeableState == kPurgeableNonVolatile && breakDown) {
        region.setPurgeableNonVolatile(true);
        name = Name(name.text() + " (purgeable non-volatile)");
    }
    region.setName(name);
}

}  // namespace zorbel
