#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zorbel {

/// The fields of /proc/PID/stat that we use.
struct ProcessStat {
    // PF_KTHREAD and PF_EXITING of <linux/sched.h>.
    static constexpr std::uint32_t kKernelThread = 0x00200000;
    static constexpr std::uint32_t kExiting = 0x00000004;

    std::string command;  ///< At most 15 bytes, chosen by the process.
    char state = '\0';
    std::int32_t parentPid = 0;
    std::int32_t terminal = 0;     ///< Device number of the controlling terminal, 0 for none.
    std::uint32_t flags = 0;       ///< PF_ bits.
    std::uint64_t startTime = 0;   ///< Clock ticks since boot; distinguishes processes with the same pid.
    std::uint64_t stackStart = 0;  ///< Address; 0 if we may not see it.
    /// Addresses of the command line's first byte, and of the one behind it; 0 if we may not see them.
    std::uint64_t argumentsStart = 0;
    std::uint64_t argumentsEnd = 0;
    std::uint64_t environmentEnd = 0;  ///< Behind which it lies; likewise.

    /// Whether it is a zombie or dead.
    [[nodiscard]] bool hasEnded() const { return state == 'Z' || state == 'X' || state == 'x'; }

    /// Whether it uses 64-bit addresses: shown by its stack's address, else assumed as on this machine.
    [[nodiscard]] bool is64bit() const {
        constexpr std::uint64_t k32BitAddressSpace = 0x100000000;
        return stackStart != 0 ? stackStart >= k32BitAddressSpace : sizeof(void*) == 8;
    }
};

/// Parses the text of a stat file; nothing if it is not one.
std::optional<ProcessStat> parseProcessStat(std::string_view text);

}  // namespace zorbel
