#include "inspect/ZBUserProcess.h"

#include <cerrno>
#include <cstdio>

namespace zorbel {

std::unique_ptr<ZBUserProcess> ZBUserProcess::userProcessWithBsdInfo(Platform& platform,
                                                                     const BsdInfoRecord& record) {
    std::unique_ptr<ZBUserProcess> process(new ZBUserProcess(platform));
    if (!process->initWithBsdInfo(record)) return nullptr;
    return process;
}

bool ZBUserProcess::_populateTask() {
    const KernReturn code = _platform.task_for_pid(_pid, _task);
    if (code == kKernSuccess) return true;
    _platform.mach_error("task_for_pid", code);
    _addGlobalError("task_for_pid [" + std::to_string(_pid) + "] " + _platform.mach_error_string(code));
    return false;
}

void ZBUserProcess::gatherData() { _gatherMemoryData(); }

void ZBUserProcess::enumerateRegions(const RegionVisitor& visitor) {
    bool tagAllOnesSeen = false;
    std::uint64_t address = 0;
    std::uint64_t size = 0;
    for (;;) {
        RegionInfoRecord record;
        const KernReturn code = _platform.mach_vm_region_recurse(_task, address, size, record);
        if (code == kKernInvalidAddress) return;
        // Memory with that tag is charged to the process apart from its address space and comes last.
        if (record.user_tag != kTagAllOnes && tagAllOnesSeen) return;
        if (code != kKernSuccess) return _reportWalkFailure("mach_vm_region_recurse", code);
        ZB_ASSERT(!record.is_submap, "a leaf look-up returned a submap");
        tagAllOnesSeen = tagAllOnesSeen || record.user_tag == kTagAllOnes;

        int purgeableState = kPurgeableDeny;
        if (_platform.mach_vm_purgable_control(_task, address, purgeableState) != kKernSuccess)
            purgeableState = kPurgeableDeny;
        Name path;
        if (record.external_pager != 0 && _isAlive()) path = _platform.proc_regionfilename(_task, address);
        if (visitor(address, size, record, purgeableState, path)) return;
        if (address + size <= address) return;  // The region ends where addresses do.
        address += size;
    }
}

void ZBUserProcess::_reportWalkFailure(const char* lookup, KernReturn code) {
    _platform.mach_error(lookup, code);
    std::fprintf(stderr, "bailing out for process %s; data may be incomplete!\n", _displayString.c_str());
    _processMachVMError(code, kMachSendInvalidDest);
}

void ZBUserProcess::_processMachVMError(KernReturn code, KernReturn expectingErrorOnExit) {
    const char* suffix = "";
    bool vanished = false;
    if (code == expectingErrorOnExit && _isAlive()) {
        BsdShortInfoRecord record;
        const int error = _platform.proc_pidinfo(_task, record);
        if (error == ESRCH) {
            suffix = " (process exited)";
            vanished = true;
        } else if (error == 0 && record.pbsi_status == BsdShortInfoRecord::kStateZombie) {
            suffix = " (zombie)";
            vanished = true;
        }
    }
    (vanished ? _warnings : _errors)
        .push_back(_displayString + ": " + _platform.mach_error_string(code) + suffix);
}

void ZBUserProcess::_gatherMemoryData() {
    constexpr std::size_t kUsualRegions = 256;  // What a program with some libraries has.
    _memoryRegions.reserve(kUsualRegions);
    const bool breakDown = breakDownPhysZorbel();
    enumerateRegions([&](std::uint64_t address, std::uint64_t size, const RegionInfoRecord& record,
                         int purgeableState, Name path) {
        _memoryRegions.push_back(_regionFromRecord(address, size, record, purgeableState, path, breakDown));
        return false;
    });
}

ZBMemoryRegion ZBUserProcess::_regionFromRecord(std::uint64_t address, std::uint64_t size,
                                                const RegionInfoRecord& record, int purgeableState, Name path,
                                                bool breakDown) const {
    ZBMemoryRegion region;
    region.setStart(address);
    region.setSize(size);
    region.setUser_tag(record.user_tag);
    region.setObject_id(record.object_id);
    region.setShare_mode(record.share_mode);
    region.setOffset(record.offset);
    region.setWiredSize(std::uint64_t{_pageSize} * record.user_wired_count);
    region.setSegment(SegmentCode::kNotInImage);
    _setSizes(region, record, purgeableState, breakDown);
    _setNames(region, record, purgeableState, path, breakDown);
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
    // Memory without a file has nowhere to be read from again: whatever of it is resident is charged, even
    // where the kernel has not marked it dirty.
    const bool recalculate = record.external_pager == 0 && _anonymousDirtyRecalculation && !breakDown;
    const std::uint32_t dirtyPages =
        recalculate ? record.pages_resident - record.pages_reusable : record.pages_dirtied;
    const std::uint32_t cleanPages = record.pages_resident - dirtyPages - record.pages_reusable;
    region.setDirtySize(page * dirtyPages);
    region.setReclaimableSize(page * record.pages_reusable);
    region.setSwappedSize(page * record.pages_swapped_out);
    region.setCleanNonSpecSize(page * cleanPages);
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
