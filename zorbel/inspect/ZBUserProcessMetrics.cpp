// Figures that the kernel keeps for a whole process.

#include "inspect/ZBUserProcess.h"

namespace zorbel {

void ZBUserProcess::_gatherKernelMemory() {
    KernelMemoryRecord record;
    if (_platform.task_info(_task, record) != kKernSuccess) return;
    // May be negative: a process can free what another one allocated.
    _kprvt = static_cast<std::int64_t>(record.total_palloc - record.total_pfree);
    _kshrd = static_cast<std::int64_t>(record.total_salloc - record.total_sfree);
}

void ZBUserProcess::_gatherPhysZorbel() {
    ResourceUsageRecord record;
    if (!_isAlive() || _platform.proc_pid_rusage(_task, record) != 0) return;
    _phys_zorbel = record.ri_phys_zorbel;
    _phys_zorbel_peak = record.ri_lifetime_max_phys_zorbel;
}

void ZBUserProcess::_gatherIdleExitStatus() {
    std::uint32_t flags = 0;
    _platform.proc_get_dirty(_pid, flags);
    _setIdleExitStatusFromDirtyFlags(flags);
}

void ZBUserProcess::_setIdleExitStatusFromDirtyFlags(std::uint32_t flags) {
    constexpr std::uint32_t kIdleExit = kProcDirtyTracked | kProcDirtyAllowsIdleExit;
    if ((flags & kIdleExit) != kIdleExit)
        _idleExitStatus = ZBIdleExitStatus::kNotIdleExit;
    else if ((flags & kProcDirtyIsDirty) != 0)
        _idleExitStatus = ZBIdleExitStatus::kIdleExitDirty;
    else
        _idleExitStatus = ZBIdleExitStatus::kIdleExitClean;
}

std::shared_ptr<const ZBAuxDataDictionary> ZBUserProcess::auxData() const {
    const auto leaf = [](std::int64_t value, bool sums) { return std::make_shared<ZBAuxData>(value, sums); };
    ZBAuxDataDictionary::Entries entries;
    if (_phys_zorbel != 0) {
        // Shared memory is charged to each process, so sums over processes are meaningless.
        entries.emplace("phys_zorbel", leaf(static_cast<std::int64_t>(_phys_zorbel), false));
        entries.emplace("phys_zorbel_peak", leaf(static_cast<std::int64_t>(_phys_zorbel_peak), false));
    }
    if (_isAlive())
        entries.emplace("Kernel memory", std::make_shared<ZBAuxDataDictionary>(ZBAuxDataDictionary::Entries{
                                             {"KPRVT", leaf(_kprvt, true)}, {"KSHRD", leaf(_kshrd, true)}}));
    if (entries.empty()) return nullptr;
    return std::make_shared<ZBAuxDataDictionary>(std::move(entries));
}

}  // namespace zorbel
