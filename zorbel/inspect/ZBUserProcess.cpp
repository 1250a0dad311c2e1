#include "inspect/ZBUserProcess.h"

#include <cerrno>

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

std::string ZBUserProcess::_gatherName(const BsdInfoRecord& record) const {
    std::string area;
    if (_platform.sysctl_procargs(_task, area))
        if (auto name = _nameInArgumentArea(std::move(area))) return *std::move(name);
    return _nameForBsdInfoCommName(record);
}

void ZBUserProcess::readData() {
    if (_task != kTaskNull) _platform.readTask(_task);
}

void ZBUserProcess::gatherDetails() {
    ProcessDetails details;
    if (_task != kTaskNull && _platform.proc_details(_task, details)) _details = std::move(details);
}

void ZBUserProcess::gatherData() {
    _gatherImageData();
    _gatherMemoryData();
    if (_task != kTaskNull) _platform.forgetTask(_task);
}

bool ZBUserProcess::_setSharedRegionFromPlatform(ZBPlatform platform) {
    const auto place = [this](std::uint64_t base, std::uint64_t size) {
        _sharedRegionBase = base;
        _sharedRegionSize = size;
        return true;
    };
    switch (platform) {
        case ZBPlatform::kX86:
            return place(0x9000'0000, 0x2000'0000);
        case ZBPlatform::kX86_64:
            return place(0x7FFF'0000'0000, 0xFFE0'0000);
        case ZBPlatform::kARM:
        case ZBPlatform::kARM64_32:
            return place(0x1A00'0000, 0x2600'0000);
        case ZBPlatform::kARM64:
            return place(0x1'8000'0000, 0x1'0000'0000);
        case ZBPlatform::kLinux:
            return place(0, 0);
        case ZBPlatform::kUnknown:
            break;
    }
    _platform.diagnostics().report("Unable to determine platform architecture of target");
    return false;
}

// Start address for the top-level look-ups of a walk. Each of them is an extra call: the binary search finds
// an address that avoids most of them.
std::uint64_t ZBUserProcess::_lastNonSharedCacheRegion() {
    constexpr std::uint64_t kCloseEnough = 0x100'0000;
    std::uint64_t low = 0;
    std::uint64_t high = _sharedRegionBase;
    while (high - low > kCloseEnough) {
        const std::uint64_t middle = (high >> 1) + (low >> 1);
        std::uint64_t found = middle;
        std::uint64_t size = 0;
        BasicRegionInfoRecord record;
        if (_platform.mach_vm_region(_task, found, size, record) != kKernSuccess) break;
        if (found <= low) break;
        if (found < _sharedRegionBase)
            low = found;
        else
            high = middle - _pageSize;
    }
    return low;
}

KernReturn ZBUserProcess::_lookUpTopLevelRegion(std::uint64_t& address, std::uint64_t& size,
                                                RegionInfoRecord& record) {
    std::uint64_t start = address;
    BasicRegionInfoRecord basic;
    const KernReturn code = _platform.mach_vm_region(_task, start, size, basic);
    if (code != kKernSuccess) return code;
    // Skip the part before the address: it has been visited.
    if (start < address)
        size -= address - start;
    else
        address = start;
    record.protection = basic.protection;
    record.max_protection = basic.max_protection;
    record.inheritance = basic.inheritance;
    record.offset = basic.offset;
    record.behavior = basic.behavior;
    record.user_wired_count = basic.user_wired_count;
    record.external_pager = 1;
    record.share_mode = kShareModeCopyOnWrite;
    record.object_id = 1;  // The same object in all processes.
    return code;
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
            record = {};  // Discards the top-level entry.
            const KernReturn code = _platform.mach_vm_region_recurse(_task, address, size, record);
            if (code == kKernInvalidAddress) return;
            // Memory with this tag is charged apart from the address space and comes last.
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
        if (address + size <= address) return;  // End of the address space.
        address += size;
    }
}

bool ZBUserProcess::_populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece,
                                                         const RegionInfoRecord& /*record*/) {
    return _sharedRegionSplit.populateWithPageQueries(
        piece, _pageSize, [this](std::uint64_t start, std::span<std::int32_t> dispositions) {
            return _queryPages(start, dispositions);
        });
}

bool ZBUserProcess::_queryPages(std::uint64_t start, std::span<std::int32_t> dispositions) {
    std::uint64_t count = dispositions.size();
    const KernReturn code =
        _platform.mach_vm_page_range_query(_task, start, count * _pageSize, dispositions.data(), count);
    if (code == kKernSuccess) return true;
    _addMessage("mach_vm_page_range_query: " + _platform.mach_error_string(code));
    _processMachVMError(code, kKernInvalidArgument);
    return false;
}

void ZBUserProcess::_reportWalkFailure(const char* lookup, KernReturn code) {
    _addMessage(std::string(lookup) + ": " + _platform.mach_error_string(code) + "\n" +
                _textOfIncompleteData());
    _processMachVMError(code, kMachSendInvalidDest);
}

std::string ZBUserProcess::_textOfIncompleteData() const {
    return "bailing out for process " + _displayString + "; data may be incomplete!";
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
