#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Diagnostics.h"

namespace zorbel {

/// Settings of the core dump handler.
struct CorpseSettings {
    std::string directory = "/var/lib/zorbel/corpses";
    std::uint32_t keptReports = 100;
    std::uint32_t keptMiB = 100;
    std::uint32_t seconds = 60;
    std::string zorbel;
    char* const* then = nullptr;  ///< Next handler: command and arguments, ending with null. Null for none.
};

/// The crashed process, as the kernel describes it.
struct Crash {
    std::int32_t pid = 0;
    std::string threadName;  ///< Printable.
    std::uint32_t signal = 0;
    std::int64_t time = 0;  ///< Seconds since the epoch.
};

/// Parses the command line. Returns the exit status if the run ends here: 0 after --help, 1 after an error,
/// which has been reported. Settings before an error, such as the next handler, stay valid.
std::optional<int> parseCorpseArguments(int argc, char* argv[], Diagnostics& diagnostics,
                                        CorpseSettings& settings, Crash& crash);

}  // namespace zorbel
