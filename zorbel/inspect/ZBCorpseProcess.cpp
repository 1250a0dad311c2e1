#include "inspect/ZBCorpseProcess.h"

#include <utility>

#include "model/Utf8.h"

namespace zorbel {

std::unique_ptr<ZBCorpseProcess> ZBCorpseProcess::processWithCorpse(Platform& platform, TaskName task,
                                                                    std::int32_t pid, const std::string& name,
                                                                    std::uint32_t dirtyFlags,
                                                                    std::uint32_t procFlags) {
    std::unique_ptr<ZBCorpseProcess> process(new ZBCorpseProcess(platform));
    if (!process->initWithCorpse(task, pid, name, dirtyFlags, procFlags)) return nullptr;
    return process;
}

bool ZBCorpseProcess::initWithCorpse(TaskName task, std::int32_t pid, const std::string& name,
                                     std::uint32_t dirtyFlags, std::uint32_t procFlags) {
    constexpr std::pair<std::uint32_t, std::uint32_t> kRecordFlags[] = {
        {kFlagSystem, BsdInfoRecord::kFlagSystem},
        {kFlag64Bit, BsdInfoRecord::kFlag64Bit},
        {kFlagControllingTerminal, BsdInfoRecord::kFlagControllingTerminal},
        {kFlagThreadDirectory, BsdInfoRecord::kFlagThreadDirectory},
        {kFlagChangedPrivileges, BsdInfoRecord::kFlagChangedPrivileges},
        {kFlagExec, BsdInfoRecord::kFlagExec},
    };
    _task = task;
    BsdInfoRecord record;
    for (const auto& [flag, recordFlag] : kRecordFlags)
        if ((procFlags & flag) != 0) record.pbi_flags |= recordFlag;
    record.pbi_pid = static_cast<std::uint32_t>(pid);
    if (!initWithBsdInfo(record)) return false;
    _name = printable(name);  // A dead process called itself so.
    _displayString = _name + " [" + std::to_string(_pid) + "] (corpse)";
    _setIdleExitStatusFromDirtyFlags(dirtyFlags);
    return true;
}

}  // namespace zorbel
