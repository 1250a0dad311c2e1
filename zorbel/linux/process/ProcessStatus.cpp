#include "linux/process/ProcessStatus.h"

#include "base/TextCursor.h"

namespace zorbel {

std::optional<ProcessStatus> parseProcessStatus(std::string_view text) {
    // A process can't fake a line: the kernel escapes newlines in its name.
    struct Field {
        std::string_view label;
        std::uint64_t ProcessStatus::*value;
    };
    constexpr Field kKibibyteFields[] = {
        {"\nVmLck:\t", &ProcessStatus::locked},
        {"\nVmHWM:\t", &ProcessStatus::residentPeak},
        {"\nRssAnon:\t", &ProcessStatus::residentAnonymous},
        {"\nRssShmem:\t", &ProcessStatus::residentShared},
        {"\nVmPTE:\t", &ProcessStatus::pageTables},
        {"\nVmSwap:\t", &ProcessStatus::swapped},
        {"\nHugetlbPages:\t", &ProcessStatus::hugePages},
    };
    ProcessStatus status;
    if (!numberBehind(text, "\nRssAnon:\t")) return std::nullopt;
    for (const Field& field : kKibibyteFields)
        status.*field.value = numberBehind(text, field.label).value_or(0) * 1024;
    status.threads = numberBehind(text, "\nThreads:\t").value_or(1);
    status.uid = static_cast<std::uint32_t>(numberBehind(text, "\nUid:\t").value_or(0));
    return status;
}

}  // namespace zorbel
