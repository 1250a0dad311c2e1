#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Diagnostics.h"

namespace zorbel {

/// What the handler of core dumps is told to do.
struct CorpseSettings {
    std::string directory = "/var/lib/zorbel/corpses";
    std::uint32_t keptReports = 100;
    std::uint32_t keptMiB = 100;
    std::uint32_t seconds = 60;
    std::string zorbel;
    char* const* then = nullptr;  ///< The next handler: command and arguments, ended by null. Null for none.
};

/// What the kernel says about the process that crashed.
struct Crash {
    std::int32_t pid = 0;
    std::string threadName;  ///< Fit to be printed.
    std::uint32_t signal = 0;
    std::int64_t time = 0;  ///< Seconds since the epoch.
};

/// Takes the command line apart. Returns the exit status where it ends the run: 0 when help was asked for, 1
/// for an error, with a message. Settings that come before an error, such as the next handler, are kept.
std::optional<int> parseCorpseArguments(int argc, char* argv[], Diagnostics& diagnostics,
                                        CorpseSettings& settings, Crash& crash);

}  // namespace zorbel
