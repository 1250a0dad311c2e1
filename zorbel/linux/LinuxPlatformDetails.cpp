// What tells processes with the same name apart.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/TextCursor.h"
#include "base/Utf8.h"
#include "linux/LinuxPlatform.h"
#include "linux/pages/ResidentMemory.h"

namespace zorbel {

namespace {

/// In bytes; longer ones are cut.
constexpr std::size_t kLongestCommand = 1024;

/// Its memory is the process's own, so only what is there is read: /proc/PID/cmdline would wait for the rest.
/// A process that has put a title in the place of its arguments may have written on over its environment:
/// then the last byte of the arguments is no longer their end.
std::string commandLineOf(int processDirectory, const ProcessStat& stat, const PageAccess& access) {
    if (stat.argumentsStart == 0 || stat.argumentsEnd <= stat.argumentsStart) return "";
    PageTables tables(processDirectory, access);
    if (!tables.isOpen()) return "";
    ResidentMemory memory(processDirectory, tables);
    const auto readUpTo = [&](std::uint64_t end) {
        std::string text(std::min<std::size_t>(kLongestCommand, end - stat.argumentsStart), '\0');
        if (!memory.read(stat.argumentsStart, std::as_writable_bytes(std::span(text)))) text.clear();
        return text;
    };
    std::string command = readUpTo(stat.argumentsEnd);
    const bool isTitle = !command.empty() && command.size() < kLongestCommand && command.back() != '\0';
    if (isTitle && stat.environmentEnd > stat.argumentsEnd) {
        std::string title = readUpTo(stat.environmentEnd);
        title.resize(std::min(title.find('\0'), title.size()));
        if (title.size() > command.size()) command = std::move(title);
    }
    while (!command.empty() && command.back() == '\0') command.pop_back();
    std::ranges::replace(command, '\0', ' ');
    return printable(command);
}

/// Lines of "NUMBER:CONTROLLERS:PATH". The one of the controller of memory, or of the only hierarchy of
/// version 2.
std::string memoryGroupIn(std::string_view text) {
    std::string_view unified;
    while (!text.empty()) {
        std::string_view line = takeLine(text);
        takeUpTo(line, ':');
        const std::string_view controllers = takeUpTo(line, ':');
        if (controllers.empty()) unified = line;
        for (std::string_view rest = controllers; !rest.empty();)
            if (takeUpTo(rest, ',') == "memory") return printable(line);
    }
    return printable(unified);
}

}  // namespace

bool LinuxPlatform::proc_details(TaskName name, ProcessDetails& details) {
    const Task& task = _taskNamed(name);
    const TaskDirectory directory(task, _root);
    const auto text = readWholeFile("stat", directory.get());
    const auto stat = text ? parseProcessStat(*text) : std::nullopt;
    if (!stat) return false;
    std::call_once(_isBootTimeRead, [this] {
        const auto statistics = readWholeFile((_root.proc + "/stat").c_str(), AT_FDCWD);
        if (statistics) _bootTime = numberBehind(*statistics, "\nbtime ").value_or(0);
    });
    static const auto kTicks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    details.parent = stat->parentPid;
    details.started = _bootTime != 0 ? _bootTime + stat->startTime / kTicks : 0;
    if (task.status) {
        details.uid = task.status->uid;
        details.user = _users.nameOf(details.uid);
    }
    details.command = commandLineOf(directory.get(), *stat, _pageAccess);
    if (const auto groups = readWholeFile("cgroup", directory.get())) details.cgroup = memoryGroupIn(*groups);
    return true;
}

}  // namespace zorbel
