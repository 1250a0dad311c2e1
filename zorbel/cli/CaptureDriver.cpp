#include "cli/CaptureDriver.h"

#include <getopt.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "aggregate/ZBZorbel.h"
#include "cli/GraphFile.h"
#include "inspect/BreakDownMode.h"
#include "inspect/ZBCapturedProcess.h"
#include "model/Utf8.h"

namespace zorbel {

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

constexpr const char* kUsage =
    "Save what processes have in memory as memory graphs, which zorbel analyses later and anywhere\n"
    "Usage: zorbel-capture [args] -o <file/directory> [proc/pid [proc/pid [...]]]\n"
    "\t-o, --output <file/directory> \tthe file for one process (\"-\" for standard output), or the "
    "directory\n"
    "\t\t\t\t\tthat gets a file NAME-PID.memgraph for each\n"
    "\t-a, --all \t\t\tsave all processes that can be opened\n"
    "\t-t, --targetChildren \t\tsave the descendants of the processes too\n"
    "\t--force \t\t\treplace files that are there already\n"
    "\t--physZorbel \t\t\tbreak down physical zorbel; zorbel takes graphs of one mode only in a run\n"
    "\t-h, --help \t\t\tprint this output\n"
    "What processes share is found again among graphs that were saved in one call. A graph holds names, "
    "paths\n"
    "and addresses, but nothing of what is in the memory.\n";

constexpr const char* kHint = "Try 'zorbel-capture --help'.\n";

enum LongOnlyOption : int { kForceOption = 256, kPhysZorbelOption };

constexpr option kLongOptions[] = {
    {"all", no_argument, nullptr, 'a'},
    {"force", no_argument, nullptr, kForceOption},
    {"help", no_argument, nullptr, 'h'},
    {"output", required_argument, nullptr, 'o'},
    {"physZorbel", no_argument, nullptr, kPhysZorbelOption},
    {"targetChildren", no_argument, nullptr, 't'},
    {nullptr, 0, nullptr, 0},
};

struct CaptureSettings {
    std::string output;
    bool targetAll = false;
    bool targetChildren = false;
    bool force = false;
    bool breaksDown = false;
    std::set<std::string> descriptions;
};

void say(const std::string& text) { std::fprintf(stderr, "zorbel-capture: %s\n", text.c_str()); }

int refuse(const std::string& text) {
    say(text);
    std::fputs(kHint, stderr);
    return kFailure;
}

/// Returns the exit status where the command line ends the run.
std::optional<int> parse(int argc, char* const argv[], CaptureSettings& settings) {
    optind = 0;  // Starts the parser anew.
    int code = 0;
    while ((code = getopt_long(argc, argv, "ahto:", kLongOptions, nullptr)) != -1) {
        switch (code) {
            case 'a':
                settings.targetAll = true;
                break;
            case 't':
                settings.targetChildren = true;
                break;
            case 'o':
                settings.output = optarg;
                break;
            case kForceOption:
                settings.force = true;
                break;
            case kPhysZorbelOption:
                settings.breaksDown = true;
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                return kSuccess;
            default:
                std::fputs(kHint, stderr);  // getopt_long has said what is wrong.
                return kFailure;
        }
    }
    settings.descriptions.insert(argv + optind, argv + argc);
    if (settings.output.empty()) return refuse("-o must say where the graphs go");
    if (settings.descriptions.empty() && !settings.targetAll) return refuse("no process is named");
    if (!settings.descriptions.empty() && settings.targetAll)
        return refuse("-a takes all processes, and none can be named beside it");
    return std::nullopt;
}

/// The processes that are asked for, by pid; whether some of them could not be found is told apart.
std::vector<std::int32_t> selectPids(Platform& platform, const CaptureSettings& settings, bool& isComplete) {
    std::vector<std::int32_t> pids;
    if (settings.targetAll) {
        for (const BsdInfoRecord& record : ZBProcess::copyAllBsdInfos(platform))
            if ((record.pbi_flags & BsdInfoRecord::kFlagSystem) == 0)
                pids.push_back(static_cast<std::int32_t>(record.pbi_pid));
    } else {
        std::vector<std::string> errors;
        const auto found = ZBProcess::pidsForStringDescriptions(platform, settings.descriptions, &errors);
        if (found)
            for (const auto& [pid, description] : *found) pids.push_back(pid);
        for (const std::string& error : errors) say(error);
        isComplete = errors.empty();
        if (settings.targetChildren) pids = ZBProcess::childPidsForPids(platform, pids).value_or(pids);
    }
    if (settings.targetAll || settings.targetChildren) std::erase(pids, getpid());
    return pids;
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Name of a process's file in a directory: of a length that any file system takes, and neither hidden nor
/// like an option.
std::string fileNameOf(const ZBProcess& process) {
    constexpr std::size_t kLongestName = 200;
    std::string name = printable(process.name(), kLongestName);
    std::ranges::replace(name, '/', '_');
    if (name.starts_with('-') || name.starts_with('.')) name[0] = '_';
    return name + "-" + std::to_string(process.pid()) + ".memgraph";
}

/// A text that no other run has.
std::string newCaptureName() {
    std::random_device random;
    std::string name;
    for (int i = 0; i < 4; ++i) {
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08x", random());
        name += digits;
    }
    return name;
}

/// Such as "Linux 6.1.0 x86_64".
std::string machineDescription() {
    utsname machine{};
    uname(&machine);
    return std::string(machine.sysname) + " " + machine.release + " " + machine.machine;
}

/// The processes, gathered as for a report. What could not be opened or read as a whole is left out, and
/// said.
class Capture {
  public:
    Capture(Platform& platform, const std::vector<std::int32_t>& pids) {
        std::vector<std::unique_ptr<ZBProcess>> processes;
        for (const std::int32_t pid : pids) {
            if (auto process = ZBCapturedProcess::processWithPid(platform, pid)) {
                _captured.push_back(process.get());
                processes.push_back(std::move(process));
            } else {
                say(pid == 0 ? "the kernel can't be saved"
                             : "unable to open process " + std::to_string(pid) + " (try as root?)");
            }
        }
        _zorbel = std::make_unique<ZBZorbel>(std::move(processes));
        _zorbel->gatherData();
        std::erase_if(_captured, [](const ZBCapturedProcess* process) {
            for (const auto* problems : {&process->errors(), &process->warnings()})
                for (const std::string& problem : *problems) say(problem + "; not saved");
            return !process->errors().empty() || !process->warnings().empty();
        });
        ZBCapturedProcess::separateObjects(_captured);
    }

    [[nodiscard]] const std::vector<ZBCapturedProcess*>& processes() const { return _captured; }

  private:
    std::unique_ptr<ZBZorbel> _zorbel;  ///< Owns the processes.
    std::vector<ZBCapturedProcess*> _captured;
};

/// Saves one graph where it belongs. False when that failed, which has been said by then.
bool save(const MemoryGraph& graph, const std::string& path, const CaptureSettings& settings) {
    if (path == "-") {
        writeMemoryGraph(stdout, graph);
        return true;  // What goes wrong there is seen at the end.
    }
    const int error = saveGraph(graph, path, settings.force);
    if (error == 0) return true;
    const char* hint = "";
    struct stat there {};
    if (error == EEXIST && lstat(path.c_str(), &there) == 0)
        hint = S_ISREG(there.st_mode) ? " (--force replaces it)" : ", and is no regular file";
    say(path + ": " + std::strerror(error) + hint);
    return false;
}

}  // namespace

int capture(int argc, char* const argv[], Platform& platform) {
    CaptureSettings settings;
    if (const auto status = parse(argc, argv, settings)) return *status;
    bool isComplete = true;
    const std::vector<std::int32_t> pids = selectPids(platform, settings, isComplete);
    const bool hasDirectory = isDirectory(settings.output);
    if (pids.size() > 1 && !hasDirectory)
        return refuse(std::to_string(pids.size()) + " processes need a directory, and " + settings.output +
                      " is none");
    if (settings.breaksDown) setBreakDownPhysZorbel(platform, true);

    const Capture captured(platform, pids);
    const std::string captureName = newCaptureName();
    const std::string description = machineDescription();
    std::size_t saved = 0;
    for (const ZBCapturedProcess* process : captured.processes()) {
        MemoryGraph graph = process->graph();
        graph.capture = captureName;
        graph.processDescription = description;
        const std::string path =
            hasDirectory ? settings.output + "/" + fileNameOf(*process) : settings.output;
        if (!save(graph, path, settings)) {
            isComplete = false;
            continue;
        }
        ++saved;
        if (hasDirectory) std::printf("%s\n", path.c_str());
    }
    if (saved < pids.size() && !settings.targetAll) isComplete = false;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        say(std::string("standard output: ") + std::strerror(errno));
        isComplete = false;
    }
    return isComplete && saved > 0 ? kSuccess : kFailure;
}

}  // namespace zorbel
