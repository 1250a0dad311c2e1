#include "linux/process/ProcessStat.h"

#include <array>

#include "base/TextCursor.h"

namespace zorbel {

namespace {

// Field numbers as in proc(5): the pid is field 1.
constexpr int kFirstNumberField = 4;
constexpr int kParentField = 4;
constexpr int kTerminalField = 7;
constexpr int kFlagsField = 9;
constexpr int kStartTimeField = 22;
constexpr int kStackStartField = 28;
constexpr int kArgumentsStartField = 48;
constexpr int kArgumentsEndField = 49;
constexpr int kEnvironmentEndField = 51;

}  // namespace

std::optional<ProcessStat> parseProcessStat(std::string_view text) {
    // The command may contain parentheses and blanks.
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return std::nullopt;

    ProcessStat stat;
    stat.command = text.substr(open + 1, close - open - 1);
    std::string_view rest = text.substr(close + 1);
    if (rest.size() < 2) return std::nullopt;
    stat.state = rest[1];
    rest.remove_prefix(2);

    std::array<std::uint64_t, kEnvironmentEndField + 1> fields{};
    for (int field = kFirstNumberField; field <= kEnvironmentEndField; ++field) {
        while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
        if (!rest.empty() && rest.front() == '-') rest.remove_prefix(1);  // No field that we use is negative.
        const auto value = takeNumber(rest);
        if (!value && field > kStackStartField) break;  // Since Linux 3.5; not worth a failure.
        if (!value) return std::nullopt;
        fields[static_cast<std::size_t>(field)] = *value;
    }
    stat.parentPid = static_cast<std::int32_t>(fields[kParentField]);
    stat.terminal = static_cast<std::int32_t>(fields[kTerminalField]);
    stat.flags = static_cast<std::uint32_t>(fields[kFlagsField]);
    stat.startTime = fields[kStartTimeField];
    stat.stackStart = fields[kStackStartField];
    stat.argumentsStart = fields[kArgumentsStartField];
    stat.argumentsEnd = fields[kArgumentsEndField];
    stat.environmentEnd = fields[kEnvironmentEndField];
    return stat;
}

}  // namespace zorbel
