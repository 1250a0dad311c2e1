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

bool ZBUserProcess::initWithBsdInfo(const BsdInfoRecord& record) {
    if (!ZBProcess::initWithBsdInfo(record)) return false;
    _setSharedRegionFromPlatform(_platform.platformOfProcesses(_is64bit));
    _gatherKernelMemory();
    _gatherPhysZorbel();
    _gatherIdleExitStatus();
    return true;
}

bool ZBUserProcess::_populateTask() {
    const KernReturn code = _platform.task_for_pid(_pid, _task);
    if (code == kKernSuccess) return true;
    _platform.mach_error("task_for_pid", code);
    _addGlobalError("task_for_pid [" + std::to_string(_pid) + "] " + _platform.mach_error_string(code));
    return false;
}

void ZBUserProcess::gatherData() {
    _gatherImageData();
    _gatherMemoryData();
}

void ZBUserProcess::enumerateRegions(const RegionVisitor& visitor) {
    const std::uint64_t sharedCacheStart = _lastNonSharedCacheRegion();
    bool tagAllOnesSeen = false;
    std::uint64_t address = 0;
    std::uint64_t size = 0;
    for (;;) {
        RegionInfoRecord record;
        int purgeableState = kPurgeableDeny;
        Name path;
        bool seenFromTop = false;
        if (sharedCacheStart != 0 && sharedCacheStart <= address &&
            address < _sharedRegionBase + _sharedRegionSize) {
            const KernReturn code = _lookUpTopLevelRegion(address, size, record);
            if (code == kKernInvalidAddress) return;
            if (code != kKernSuccess) return _reportWalkFailure("mach_vm_region", code);
            seenFromTop = _isInSharedRegion(address);
        }
        if (!seenFromTop) {
            record = {};  // The top-level entry told of what lies around.
            const KernReturn code = _platform.mach_vm_region_recurse(_task, address, size, record);
            if (code == kKernInvalidAddress) return;
            // Memory with that tag is charged to the process apart from its address space and comes last.
            if (record.user_tag != kTagAllOnes && tagAllOnesSeen) return;
            if (code != kKernSuccess) return _reportWalkFailure("mach_vm_region_recurse", code);
            ZB_ASSERT(!record.is_submap, "a leaf look-up returned a submap");
            tagAllOnesSeen = tagAllOnesSeen || record.user_tag == kTagAllOnes;
            if (_platform.mach_vm_purgable_control(_task, address, purgeableState) != kKernSuccess)
                purgeableState = kPurgeableDeny;
            if (record.external_pager != 0 && _isAlive())
                path = _platform.proc_regionfilename(_task, address);
        }
        if (visitor(address, size, record, purgeableState, path)) return;
        if (address + size <= address) return;  // The region ends where addresses do.
        address += size;
    }
}

void ZBUserProcess::_reportWalkFailure(const char* lookup, KernReturn code) {
    _platform.mach_error(lookup, code);
    _sayDataIsIncomplete();
    _processMachVMError(code, kMachSendInvalidDest);
}

void ZBUserProcess::_sayDataIsIncomplete() const {
    std::fprintf(stderr, "bailing out for process %s; data may be incomplete!\n", _displayString.c_str());
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

}  // namespace zorbel
