#include "inspect/linux/ProcessStatus.h"

#include "inspect/linux/ProcFiles.h"

namespace zorbel {

namespace {

/// The number behind a label that begins a line. A process can't forge one: newlines in its name are escaped.
std::optional<std::uint64_t> numberBehind(std::string_view text, std::string_view label) {
    const std::size_t found = text.find(label);
    if (found == std::string_view::npos) return std::nullopt;
    text.remove_prefix(found + label.size());
    return takeNumber(text);
}

}  // namespace

std::optional<ProcessStatus> parseProcessStatus(std::string_view text) {
    struct Field {
        std::string_view label;
        std::uint64_t ProcessStatus::*value;
    };
    constexpr Field kKibibyteFields[] = {
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
    return status;
}

}  // namespace zorbel
