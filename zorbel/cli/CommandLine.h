#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Diagnostics.h"
#include "cli/TargetSelection.h"
#include "report/OutputFormat.h"

namespace zorbel {

/// The values of the options.
struct RunSettings {
    bool targetAll = false;
    std::optional<std::string> jsonPath;
    bool targetChildren = false;
    bool skipIdleExitClean = false;
    bool lattixOutput = false;
    SummaryFormat summaryFormat = SummaryFormat::kFormatted;
    bool summarize = false;
    OutputOptions outputOptions = 0;
    bool breakDownMode = false;
    bool breakDownModeFixed = false;  ///< Whether all memory graphs must have that mode.
    bool corpseMode = false;
    std::int32_t corpsePid = -1;
    std::optional<std::string> corpseName;
    std::uint32_t corpseDirtyFlags = 0;
    std::uint32_t corpseProcFlags = 0;
};

/// The parsed command line.
struct CommandLine {
    RunSettings settings;
    std::vector<TargetArgument> targets;           ///< In the order of the command line.
    std::vector<std::string> excludeDescriptions;  ///< Names or pids.
};

/// Parses the arguments in order. Returns the exit status if the run ends here: 0 after --help, 1 after an
/// error, which has been reported. Not thread-safe, because of getopt_long.
std::optional<int> parseCommandLine(int argc, char* const argv[], Diagnostics& diagnostics,
                                    CommandLine& commandLine);

/// Prints the usage to standard output.
void printUsage();

}  // namespace zorbel
