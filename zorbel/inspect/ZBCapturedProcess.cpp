#include "inspect/ZBCapturedProcess.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#include <limits>
#include <tuple>

#include "model/ZBMemoryObject.h"

namespace zorbel {

std::unique_ptr<ZBCapturedProcess> ZBCapturedProcess::capturedProcessWithPid(Platform& platform,
                                                                             std::int32_t pid) {
    BsdInfoRecord record;
    if (!platform.proc_pidinfo(pid, record)) return nullptr;
    if ((record.pbi_flags & BsdInfoRecord::kFlagSystem) != 0) return nullptr;
    std::unique_ptr<ZBCapturedProcess> process(new ZBCapturedProcess(platform));
    if (!process->initWithBsdInfo(record)) return nullptr;
    return process;
}

void ZBCapturedProcess::enumerateRegions(const RegionVisitor& visitor) {
    ZBUserProcess::enumerateRegions([&](std::uint64_t address, std::uint64_t size,
                                        const RegionInfoRecord& record, int purgeableState, Name path) {
        const bool stops = visitor(address, size, record, purgeableState, path);
        _details.resize(_memoryRegions.size(), {record, purgeableState, path});
        return stops;
    });
}

void ZBCapturedProcess::_stateAll(ZBMemoryRegion& region) {
    ZBMemoryObject* object = region.memoryObject();
    const SizeCounts own = region.ownSizes();
    std::vector<SharedPart>& parts =
        _wholeParts.emplace_back(region.sharedParts().begin(), region.sharedParts().end());
    auto whole = std::ranges::find(parts, object, &SharedPart::memoryObject);
    if (whole == parts.end()) whole = parts.insert(whole, {region.object_id(), {}, {}, object});
    whole->sizes += own;
    whole->objectSizes = object->totalSizes();
    region.setSharedParts(parts);
}

void ZBCapturedProcess::_stateWholeObjects(std::span<ZBCapturedProcess* const> processes) {
    boost::unordered_flat_set<const ZBMemoryObject*> partlyStated;
    for (const ZBCapturedProcess* process : processes)
        for (const ZBMemoryRegion& region : process->memoryRegions())
            for (const SharedPart& part : region.sharedParts())
                if (part.memoryObject == region.memoryObject() && region.ownSizes() != SizeCounts())
                    partlyStated.insert(part.memoryObject);
    for (ZBCapturedProcess* process : processes)
        for (ZBMemoryRegion& region : process->memoryRegions())
            if (partlyStated.contains(region.memoryObject())) process->_stateAll(region);
}

std::uint32_t ZBCapturedProcess::_separateRanges(std::span<ZBCapturedProcess* const> processes) {
    struct Range {
        ZBMemoryRegion* region;
        std::uint64_t start;
        std::uint64_t end;

        /// The object's key. Text and link-edit data of one object are separate objects.
        [[nodiscard]] auto object() const {
            const SegmentCode segment = region->segment();
            const bool isApart = segment == SegmentCode::kText || segment == SegmentCode::kLinkedit;
            return std::tuple(region->object_id(), isApart ? segment : SegmentCode::kUnspecified);
        }
    };
    std::vector<Range> ranges;
    for (ZBCapturedProcess* process : processes) {
        const std::uint64_t page = process->pageSize();
        for (ZBMemoryRegion& region : process->memoryRegions())
            if (region.object_id() != 0)
                ranges.push_back({&region, region.offset() & ~(page - 1), region.offset() + region.size()});
    }
    std::ranges::sort(ranges, [](const Range& a, const Range& b) {
        return std::tuple(a.object(), a.start) < std::tuple(b.object(), b.start);
    });
    std::uint32_t id = 0;
    std::uint64_t end = 0;
    auto object = decltype(ranges.front().object())();
    for (const Range& range : ranges) {
        if (const auto next = range.object(); id == 0 || next != object || range.start >= end) {
            ++id;
            object = next;
            end = 0;
        }
        end = std::max(end, range.end);
        range.region->setObject_id(id);
    }
    return id;
}

void ZBCapturedProcess::separateObjects(std::span<ZBCapturedProcess* const> processes) {
    _stateWholeObjects(processes);
    std::uint32_t id = _separateRanges(processes);
    boost::unordered_flat_map<const ZBMemoryObject*, std::uint32_t> ids;
    for (ZBCapturedProcess* process : processes)
        for (ZBMemoryRegion& region : process->memoryRegions())
            for (SharedPart& part : region.sharedParts()) {
                if (part.memoryObject == nullptr) continue;
                const auto [known, isNew] = ids.try_emplace(part.memoryObject, id + 1);
                if (isNew) ++id;
                part.object_id = known->second;
            }
}

std::vector<GraphSharedPart> ZBCapturedProcess::_graphPartsOf(const ZBMemoryRegion& region) {
    // Graphs have no reclaimable bytes, but clean ones.
    const auto residentOf = [](const SizeCounts& sizes) {
        return sizes.dirty + sizes.clean + sizes.reclaimable;
    };
    std::vector<GraphSharedPart> parts;
    std::uint64_t dirty = region.dirtySize();
    std::uint64_t other = residentOf(region.sizes()) - dirty;
    std::uint64_t swapped = region.swappedSize();
    const auto take = [](std::uint64_t& from, std::uint64_t size) {
        const std::uint64_t taken = std::min(from, size);
        from -= taken;
        return taken;
    };
    for (const SharedPart& part : region.sharedParts()) {
        GraphSharedPart& saved = parts.emplace_back();
        saved.object_id = static_cast<std::uint32_t>(part.object_id);
        // Together, the parts have no more than the region.
        saved.dirty_size = take(dirty, part.sizes.dirty);
        saved.resident_size = saved.dirty_size + take(other, residentOf(part.sizes) - part.sizes.dirty);
        saved.swapped_out_size = take(swapped, part.sizes.swapped);
        saved.object_dirty_size = part.objectSizes.dirty;
        saved.object_resident_size = residentOf(part.objectSizes);
        saved.object_swapped_out_size = part.objectSizes.swapped;
    }
    return parts;
}

GraphRegion ZBCapturedProcess::_graphRegionOf(const ZBMemoryRegion& region, const Details& details,
                                              const ZBImage* image) const {
    const RegionInfoRecord& record = details.record;
    GraphRegion saved;
    saved.address = region.start();
    saved.length = region.size();
    saved.type = image != nullptr ? image->name() : region.name();
    saved.path = image != nullptr ? image->ownerPath() : details.path;
    saved.prot = record.protection;
    saved.maxProt = record.max_protection;
    saved.user_tag = record.user_tag;
    saved.resident_size = region.dirtySize() + region.cleanNonSpecSize() + region.reclaimableSize();
    saved.shared_now_private_size = std::uint64_t{_pageSize} * record.pages_shared_now_private;
    saved.swapped_out_size = region.swappedSize();
    saved.dirty_size = region.dirtySize();
    constexpr std::uint32_t kMostReferences = std::numeric_limits<std::uint16_t>::max();
    saved.ref_count = static_cast<std::uint16_t>(std::min(record.ref_count, kMostReferences));
    saved.external_pager = record.external_pager;
    saved.share_mode = record.share_mode;
    saved.is_submap = record.is_submap;
    saved.object_id = static_cast<std::uint32_t>(region.object_id());
    saved.purgeable = details.purgeableState;
    saved.shared = _graphPartsOf(region);
    return saved;
}

MemoryGraph ZBCapturedProcess::graph() const {
    MemoryGraph graph;
    graph.pid = _pid;
    graph.is64bit = _is64bit;
    graph.processName = _name;
    graph.vmPageSize = _pageSize;
    graph.physZorbel = _phys_zorbel;
    graph.physZorbelPeak = _phys_zorbel_peak;
    graph.breakDownPhysZorbel = breakDownPhysZorbel();
    graph.regions.reserve(_memoryRegions.size());
    ZBImageEnumerator images(_images);
    for (std::size_t i = 0; i < _memoryRegions.size(); ++i) {
        const ZBMemoryRegion& region = _memoryRegions[i];
        const bool isOfImage = region.segment() >= SegmentCode::kText;
        const ZBImage* image = isOfImage ? images.nextImageForStart(region.start(), region.end()) : nullptr;
        graph.regions.push_back(_graphRegionOf(region, _details[i], image));
    }
    return graph;
}

}  // namespace zorbel
