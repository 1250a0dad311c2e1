#include "inspect/ZBCorpseProcess.h"

#include <utility>

#include "base/Utf8.h"

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
        {CorpseFlags::kSystem, BsdInfoRecord::kFlagSystem},
        {CorpseFlags::k64Bit, BsdInfoRecord::kFlag64Bit},
        {CorpseFlags::kControllingTerminal, BsdInfoRecord::kFlagControllingTerminal},
        {CorpseFlags::kThreadDirectory, BsdInfoRecord::kFlagThreadDirectory},
        {CorpseFlags::kChangedPrivileges, BsdInfoRecord::kFlagChangedPrivileges},
        {CorpseFlags::kExec, BsdInfoRecord::kFlagExec},
    };
    _task = task;
    BsdInfoRecord record;
    for (const auto& [flag, recordFlag] : kRecordFlags)
        if ((procFlags & flag) != 0) record.pbi_flags |= recordFlag;
    record.pbi_pid = static_cast<std::uint32_t>(pid);
    _givenName = printable(name);  // Untrusted input, chosen by the process.
    if (!initWithBsdInfo(record)) return false;
    _displayString += " (corpse)";
    _setIdleExitStatusFromDirtyFlags(dirtyFlags);
    return true;
}

}  // namespace zorbel
