#include "linux/process/Threads.h"

#include <dirent.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include "base/Files.h"
#include "base/TextCursor.h"

namespace zorbel {

namespace {

/// The last but one of the fields: "NUMBER ARGUMENTS... STACK-POINTER PROGRAM-COUNTER", where the number is
/// that of a system call, or "-1 STACK-POINTER PROGRAM-COUNTER". "running" for a thread that does not wait.
std::optional<std::uint64_t> stackPointerIn(std::string_view text) {
    std::string_view line = takeLine(text);
    std::string_view before;
    std::string_view last;
    for (std::string_view word = takeWord(line); !word.empty(); word = takeWord(line)) {
        before = last;
        last = word;
    }
    if (!before.starts_with("0x")) return std::nullopt;
    before.remove_prefix(2);
    return takeNumber(before, 16);
}

std::uint64_t softStackLimit(int processDirectory) {
    const auto limits = readWholeFile("limits", processDirectory);
    return limits ? numberBehind(*limits, "Max stack size").value_or(0) : 0;
}

}  // namespace

ThreadStacks stacksOfThreads(int processDirectory) {
    ThreadStacks stacks;
    FileDescriptor threads = openDirectory("task", processDirectory);
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(threads.get()), &closedir);
    if (!directory) return stacks;
    const int tasks = threads.release();  // closedir() closes it.
    const auto stat = readWholeFile("stat", processDirectory);
    std::string_view rest = stat ? std::string_view(*stat) : "";
    const std::string first(takeWord(rest));
    while (const dirent* thread = readdir(directory.get())) {
        if (thread->d_name[0] == '.' || thread->d_name == first) continue;
        const auto text = readWholeFile((std::string(thread->d_name) + "/syscall").c_str(), tasks);
        const auto pointer = text ? stackPointerIn(*text) : std::nullopt;
        if (pointer)
            stacks.pointers.push_back(*pointer);
        else
            ++stacks.unknown;
    }
    std::ranges::sort(stacks.pointers);
    stacks.usualSize = softStackLimit(processDirectory);
    return stacks;
}

}  // namespace zorbel
