#include "corpse/DyingProcess.h"

#include <fcntl.h>

#include <cerrno>
#include <optional>

#include "base/Utf8.h"
#include "linux/process/ProcessDirectory.h"
#include "linux/process/ProcessStat.h"
#include "platform/Records.h"

namespace zorbel {

Result<DyingProcess> DyingProcess::open(std::int32_t pid, const SystemRoot& root) {
    const std::string subject = "process " + std::to_string(pid);
    FileDescriptor directory = openDirectory(root.ofProcess(pid).c_str(), AT_FDCWD);
    if (!directory.isOpen()) return Error::last().on(subject);
    const bool isDumped = anyTask(directory.get(), [&](const std::string& place) {
        const auto text = readWholeFile((place + "status").c_str(), directory.get());
        return text && text->find("\nCoreDumping:\t1\n") != std::string::npos;
    });
    if (!isDumped) return Error::ofErrno(ESRCH).on(subject);
    return DyingProcess(std::move(directory));
}

std::string DyingProcess::programName() const {
    std::string path;
    anyTask(_directory.get(), [&](const std::string& place) {
        const auto program = pathOfProgram(_directory.get(), place);
        if (program) path = *program;
        return program.has_value();
    });
    return printable(path.substr(path.rfind('/') + 1));
}

std::uint32_t DyingProcess::flags() const {
    std::optional<ProcessStat> stat;
    anyTask(_directory.get(), [&](const std::string& place) {
        const auto text = readWholeFile((place + "stat").c_str(), _directory.get());
        stat = text ? parseProcessStat(*text) : std::nullopt;
        return stat && stat->stackStart != 0;
    });
    std::uint32_t flags = 0;
    if (!stat || stat->is64bit()) flags |= CorpseFlags::k64Bit;
    if (stat && stat->terminal != 0) flags |= CorpseFlags::kControllingTerminal;
    return flags;
}

}  // namespace zorbel
