#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zorbel {

/// What we need of a /proc/PID/stat.
struct ProcessStat {
    // PF_KTHREAD and PF_EXITING of <linux/sched.h>.
    static constexpr std::uint32_t kKernelThread = 0x00200000;
    static constexpr std::uint32_t kExiting = 0x00000004;

    std::string command;  ///< At most 15 bytes, as the process chose them.
    char state = '\0';
    std::int32_t parentPid = 0;
    std::int32_t terminal = 0;     ///< Device number of the controlling terminal, 0 for none.
    std::uint32_t flags = 0;       ///< PF_ bits.
    std::uint64_t startTime = 0;   ///< Clock ticks since boot; tells two processes of one pid apart.
    std::uint64_t stackStart = 0;  ///< Address, 0 where we may not see it.

    /// Whether it is a zombie, or on the way from there.
    [[nodiscard]] bool hasEnded() const { return state == 'Z' || state == 'X' || state == 'x'; }

    /// Whether it runs with 64-bit addresses: told by where its stack is, else as the machine does.
    [[nodiscard]] bool is64bit() const {
        constexpr std::uint64_t k32BitAddressSpace = 0x100000000;
        return stackStart != 0 ? stackStart >= k32BitAddressSpace : sizeof(void*) == 8;
    }
};

/// Takes the text of a stat file apart; nothing when it is not one.
std::optional<ProcessStat> parseProcessStat(std::string_view text);

}  // namespace zorbel
