#include "corpse/CorpseArguments.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/Utf8.h"

namespace zorbel {

namespace {

constexpr const char* kUsage =
    "Report on the memory of a crashed process, as the kernel's core dump handler\n"
    "Usage: zorbel-corpse-handler [args] pid name signal time [--then command [argument ...]]\n"
    "\t--directory <directory> \tdirectory for the reports (default: /var/lib/zorbel/corpses)\n"
    "\t--keep <count> \t\t\thighest number of reports to keep (default: 100)\n"
    "\t--keepMiB <size> \t\thighest total size of reports, in MiB (default: 100)\n"
    "\t--timeout <seconds> \t\ttime limit for a report (default: 60)\n"
    "\t--zorbel <path> \t\tthe program that reports (default: zorbel in the directory of this program)\n"
    "\t--then command \t\t\tthe next handler, which gets the core image (default: none)\n"
    "\t-h, --help \t\t\tprint this output\n"
    "Install it with: echo '|/usr/bin/zorbel-corpse-handler %P %e %s %t' >/proc/sys/kernel/core_pattern\n";

enum Option : int { kDirectory = 256, kKeep, kKeepMiB, kTimeout, kZorbel };

constexpr option kLongOptions[] = {
    {"directory", required_argument, nullptr, kDirectory},
    {"help", no_argument, nullptr, 'h'},
    {"keep", required_argument, nullptr, kKeep},
    {"keepMiB", required_argument, nullptr, kKeepMiB},
    {"timeout", required_argument, nullptr, kTimeout},
    {"zorbel", required_argument, nullptr, kZorbel},
    {nullptr, 0, nullptr, 0},
};

/// Parses a number; false if the text has anything else in it.
template <typename Number>
bool takeWhole(const char* text, Number& number) {
    const char* end = text + std::strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, number);
    return error == std::errc() && parsed == end;
}

}  // namespace

std::optional<int> parseCorpseArguments(int argc, char* argv[], Diagnostics& diagnostics,
                                        CorpseSettings& settings, Crash& crash) {
    optind = 0;  // Restarts getopt_long.
    int code = 0;
    bool isRight = true;
    // "+": options end at the pid, since the thread name after it may look like an option.
    while ((code = getopt_long(argc, argv, "+h", kLongOptions, nullptr)) != -1) {
        switch (code) {
            case kDirectory:
                settings.directory = optarg;
                break;
            case kKeep:
                isRight = isRight && takeWhole(optarg, settings.keptReports);
                break;
            case kKeepMiB:
                isRight = isRight && takeWhole(optarg, settings.keptMiB);
                break;
            case kTimeout:
                isRight = isRight && takeWhole(optarg, settings.seconds);
                break;
            case kZorbel:
                settings.zorbel = optarg;
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                return EXIT_SUCCESS;
            default:
                isRight = false;
        }
    }
    char** rest = argv + optind;
    const int count = argc - optind;
    constexpr int kArguments = 4;
    isRight = isRight && count >= kArguments && takeWhole(rest[0], crash.pid) && crash.pid > 0 &&
              takeWhole(rest[2], crash.signal) && takeWhole(rest[3], crash.time);
    if (count > kArguments) {
        // A next handler gets its turn even where the other arguments are wrong, but only behind its own
        // word.
        const bool hasThen = std::string_view(rest[kArguments]) == "--then" && count > kArguments + 1;
        if (hasThen) settings.then = rest + kArguments + 1;
        isRight = isRight && hasThen;
    }
    if (!isRight) {
        diagnostics.report("wrong arguments; see --help");
        return EXIT_FAILURE;
    }
    crash.threadName = printable(rest[1]);
    return std::nullopt;
}

}  // namespace zorbel
