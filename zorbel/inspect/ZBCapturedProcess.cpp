#include "inspect/ZBCapturedProcess.h"

#include <algorithm>
#include <limits>
#include <tuple>

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

void ZBCapturedProcess::separateObjects(std::span<ZBCapturedProcess* const> processes) {
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
    std::uint64_t id = 0;
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
