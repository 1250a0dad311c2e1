#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace zorbel {

/// The fields of /proc/PID/status that we use. Sizes are bytes.
struct ProcessStatus {
    std::uint64_t residentAnonymous = 0;  ///< RssAnon
    std::uint64_t residentShared = 0;     ///< RssShmem: shared memory, and files in memory only.
    std::uint64_t swapped = 0;            ///< VmSwap: does not include shared memory.
    std::uint64_t hugePages = 0;          ///< HugetlbPages: not included in any other field.
    std::uint64_t residentPeak = 0;       ///< VmHWM: peak resident size, including clean pages of files.
    std::uint64_t pageTables = 0;         ///< VmPTE
    std::uint64_t locked = 0;             ///< VmLck
    std::uint64_t threads = 0;
    std::uint32_t uid = 0;  ///< The real one.

    /// Bytes that the process is charged for.
    [[nodiscard]] std::uint64_t charge() const {
        return residentAnonymous + residentShared + swapped + hugePages;
    }
};

/// Parses the text of a status file; nothing if it shows no memory, as for a thread that has ended.
std::optional<ProcessStatus> parseProcessStatus(std::string_view text);

}  // namespace zorbel
