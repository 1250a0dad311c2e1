#include "cli/CommandLine.h"

#include <getopt.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace zorbel {

namespace {

enum LongOnlyOption : int {
    kCorpsePidOption = 256,
    kCorpseNameOption,
    kCorpseDirtyFlagsOption,
    kCorpseProcFlagsOption,
    kPhysZorbelOption,
    kSwappedOption,
    kWiredOption,
    kPidOption,
};

/// The leading "-" makes getopt_long return positional arguments in order, among the options.
constexpr const char* kShortOptions = "-aj:htp:x:svf:yw";

constexpr option kLongOptions[] = {
    {"all", no_argument, nullptr, 'a'},
    {"json", required_argument, nullptr, 'j'},
    {"help", no_argument, nullptr, 'h'},
    {"targetChildren", no_argument, nullptr, 't'},
    {"proc", required_argument, nullptr, 'p'},
    {"exclude", required_argument, nullptr, 'x'},
    {"pid", required_argument, nullptr, kPidOption},
    {"skip", no_argument, nullptr, 's'},
    {"format", required_argument, nullptr, 'f'},
    {"summary", no_argument, nullptr, 'y'},
    {"corpsePid", required_argument, nullptr, kCorpsePidOption},
    {"corpseName", required_argument, nullptr, kCorpseNameOption},
    {"corpseDirtyFlags", required_argument, nullptr, kCorpseDirtyFlagsOption},
    {"corpseProcFlags", required_argument, nullptr, kCorpseProcFlagsOption},
    {"physZorbel", no_argument, nullptr, kPhysZorbelOption},
    {"wide", no_argument, nullptr, 'w'},
    {"swapped", no_argument, nullptr, kSwappedOption},
    {"wired", no_argument, nullptr, kWiredOption},
    {nullptr, 0, nullptr, 0},
};

constexpr const char* kUsage =
    "Gather memory information about a process or set of processes\n"
    "Usage: zorbel [args] [proc/pid/memgraph [proc/pid/memgraph [...]]]\n"
    "\t-a, --all \t\t\t\ttarget all processes\n"
    "\t-j, --json <file> \t\t\tprint json output to a file\n"
    "\t-h, --help \t\t\t\tprint this output\n"
    "\t-p, --proc, --pid [proc/pid] \t\ttarget pid or process (or interpret for -p)\n"
    "\t-x, --exclude [proc/pid] \t\texclude pid or process\n"
    "\t-s, --skip \t\t\t\tskip processes that are idle-exit clean\n"
    "\t-v \t\t\t\t\tlattix-like output of address space layout\n"
    "\t-f, --format (bytes|formatted|pages) \tchange size formatting preference (default: formatted)\n"
    "\t-y, --summary\t\t\t\tprint only dirty regions, and always exclude __TEXT, __DATA and __LINKEDIT "
    "regions\n"
    "\t-w, --wide\t\t\t\tshow wide output with all columns (implies --swapped --wired)\n"
    "\t--swapped\t\t\t\tshow swapped/compressed column\n"
    "\t--wired\t\t\t\t\tshow wired column\n";

/// Whether the text is a hexadecimal number such as 0x10. Read as decimal, it would mean process 0.
bool isHexadecimal(std::string_view text) {
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
           std::isxdigit(static_cast<unsigned char>(text[2])) != 0;
}

bool addPid(const char* text, Diagnostics& diagnostics, std::vector<TargetArgument>& targets) {
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (end == text || isHexadecimal(text)) {
        diagnostics.report("'" + std::string(text) +
                           "' is not a valid integer for --pid.\n\n"
                           "Use -p / --proc if you meant to specify a process name.");
        return false;
    }
    const auto pid = static_cast<std::int32_t>(number);
    if (pid != number)
        diagnostics.report("--pid " + std::string(text) + " does not fit into 32 bits and is taken for " +
                           std::to_string(pid));
    targets.push_back({TargetArgument::Kind::kPid, {}, pid});
    return true;
}

bool setFormat(std::string_view word, Diagnostics& diagnostics, SummaryFormat& format) {
    if (word == "bytes")
        format = SummaryFormat::kBytes;
    else if (word == "formatted")
        format = SummaryFormat::kFormatted;
    else if (word == "pages")
        format = SummaryFormat::kPages;
    else {
        diagnostics.report(
            "Unrecognized argument to -f / --format.\n\n"
            "Accepted arguments: 'bytes', 'formatted', 'pages'.");
        return false;
    }
    return true;
}

/// Parses a pid; -1, which no process has, if it is out of range.
std::int32_t corpsePidFrom(const char* text) {
    const long number = std::strtol(text, nullptr, 10);
    return number == static_cast<std::int32_t>(number) ? static_cast<std::int32_t>(number) : -1;
}

/// Applies an option that describes a corpse; false for any other option.
bool applyCorpseOption(int code, const char* argument, RunSettings& settings) {
    switch (code) {
        case kCorpsePidOption:
            settings.corpsePid = corpsePidFrom(argument);
            break;
        case kCorpseNameOption:
            settings.corpseName = argument;
            break;
        case kCorpseDirtyFlagsOption:
            settings.corpseDirtyFlags = static_cast<std::uint32_t>(std::strtol(argument, nullptr, 16));
            break;
        case kCorpseProcFlagsOption:
            settings.corpseProcFlags = static_cast<std::uint32_t>(std::strtol(argument, nullptr, 16));
            break;
        default:
            return false;
    }
    settings.corpseMode = true;
    return true;
}

/// Applies one option; returns the exit status if it ends the run.
std::optional<int> applyOption(int code, Diagnostics& diagnostics, CommandLine& commandLine) {
    RunSettings& settings = commandLine.settings;
    switch (code) {
        case 'a':
            settings.targetAll = true;
            break;
        case 'j':
            settings.jsonPath = optarg;
            break;
        case 'h':
            printUsage();
            return 0;
        case 't':
            settings.targetChildren = true;
            break;
        case 'p':
            commandLine.targets.push_back({TargetArgument::Kind::kDescription, optarg});
            break;
        case 'x':
            commandLine.excludeDescriptions.emplace_back(optarg);
            break;
        case 's':
            settings.skipIdleExitClean = true;
            break;
        case 'v':
            settings.lattixOutput = true;
            break;
        case 'y':
            settings.summarize = true;
            break;
        case 'w':
            settings.outputOptions |= kShowWired | kShowSwapped;
            break;
        case kSwappedOption:
            settings.outputOptions |= kShowSwapped;
            break;
        case kWiredOption:
            settings.outputOptions |= kShowWired;
            break;
        case kPhysZorbelOption:
            settings.breakDownMode = settings.breakDownModeFixed = true;
            break;
        case kPidOption:
            if (!addPid(optarg, diagnostics, commandLine.targets)) return 1;
            break;
        case 'f':
            if (!setFormat(optarg, diagnostics, settings.summaryFormat)) return 1;
            break;
        default:
            if (applyCorpseOption(code, optarg, settings)) break;
            printUsage();  // getopt_long has reported the error.
            return 1;
    }
    return std::nullopt;
}

}  // namespace

void printUsage() { std::fputs(kUsage, stdout); }

std::optional<int> parseCommandLine(int argc, char* const argv[], Diagnostics& diagnostics,
                                    CommandLine& commandLine) {
    constexpr int kPositional = 1;  // getopt_long returns this for a positional argument.
    const auto addPositional = [&](const char* text) {
        commandLine.targets.push_back({TargetArgument::Kind::kFileOrDescription, text});
    };
    optind = 0;  // Restarts getopt_long.
    int code = 0;
    while ((code = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1)
        if (code == kPositional)
            addPositional(optarg);
        else if (const auto status = applyOption(code, diagnostics, commandLine))
            return status;
    for (int index = optind; index < argc; ++index) addPositional(argv[index]);  // After "--".
    return std::nullopt;
}

}  // namespace zorbel
