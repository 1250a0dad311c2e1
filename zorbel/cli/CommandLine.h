#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Diagnostics.h"
#include "cli/TargetSelection.h"
#include "report/OutputFormat.h"

namespace zorbel {

/// What the options ask for.
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
    bool breakDownModeFixed = false;  ///< Whether every memory graph must agree with that mode.
    bool corpseMode = false;
    std::int32_t corpsePid = -1;
    std::optional<std::string> corpseName;
    std::uint32_t corpseDirtyFlags = 0;
    std::uint32_t corpseProcFlags = 0;
};

/// The command line, taken apart.
struct CommandLine {
    RunSettings settings;
    std::vector<TargetArgument> targets;           ///< In the order of the command line.
    std::vector<std::string> excludeDescriptions;  ///< Names and numbers of processes.
};

/// Parses in the order of the arguments. Returns the exit status where parsing ends the run: 0 when help was
/// asked for, 1 for an error, which has been reported by then. Uses getopt_long, so one call at a time.
std::optional<int> parseCommandLine(int argc, char* const argv[], Diagnostics& diagnostics,
                                    CommandLine& commandLine);

/// Prints the usage text on standard output.
void printUsage();

}  // namespace zorbel
