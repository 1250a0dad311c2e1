#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace zorbel {

/// What we need of a /proc/PID/status. Sizes are bytes.
struct ProcessStatus {
    std::uint64_t residentAnonymous = 0;  ///< RssAnon
    std::uint64_t residentShared = 0;     ///< RssShmem: of files that live in memory only.
    std::uint64_t swapped = 0;            ///< VmSwap, which leaves shared memory out.
    std::uint64_t hugePages = 0;          ///< HugetlbPages, which are part of no other figure.
    std::uint64_t residentPeak = 0;  ///< VmHWM: the most that was resident, clean pages of files included.
    std::uint64_t pageTables = 0;    ///< VmPTE
    std::uint64_t threads = 0;

    /// What the process is charged for.
    [[nodiscard]] std::uint64_t charge() const {
        return residentAnonymous + residentShared + swapped + hugePages;
    }
};

/// Takes the text of a status file apart; nothing when it shows no memory, as that of a thread that has
/// ended.
std::optional<ProcessStatus> parseProcessStatus(std::string_view text);

}  // namespace zorbel
