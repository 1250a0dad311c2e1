#include "cli/CaptureDriver.h"

#include <getopt.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "aggregate/ZBZorbel.h"
#include "base/Utf8.h"
#include "cli/TargetSelection.h"
#include "inspect/BreakDownMode.h"
#include "inspect/ZBCapturedProcess.h"
#include "memgraph/GraphFile.h"

namespace zorbel {

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

constexpr const char* kUsage =
    "Save the memory layout of processes as memory graphs, for zorbel to analyze later on any machine\n"
    "Usage: zorbel-capture [args] -o <file/directory> [proc/pid [proc/pid [...]]]\n"
    "\t-o, --output <file/directory> \tthe file for one process (\"-\" for standard output), or the "
    "directory\n"
    "\t\t\t\t\tfor a file NAME-PID.memgraph for each\n"
    "\t-a, --all \t\t\tsave all processes that can be opened\n"
    "\t-t, --targetChildren \t\tsave the descendants of the processes too\n"
    "\t--force \t\t\treplace existing files\n"
    "\t--physZorbel \t\t\tbreak down physical zorbel; zorbel takes graphs of one mode only in a run\n"
    "\t-h, --help \t\t\tprint this output\n"
    "Shared memory is found only among graphs that were saved in one call. A graph contains names, paths\n"
    "and addresses, but no contents of memory.\n";

constexpr const char* kPrefix = "zorbel-capture: ";
constexpr const char* kHint = "Try 'zorbel-capture --help'.";

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
    std::vector<TargetArgument> targets;
};

int refuse(Diagnostics& diagnostics, const std::string& text) {
    diagnostics.report(kPrefix + text + "\n" + kHint);
    return kFailure;
}

/// Returns the exit status if the arguments end the run.
std::optional<int> parse(int argc, char* const argv[], Diagnostics& diagnostics, CaptureSettings& settings) {
    optind = 0;  // Restarts getopt_long.
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
                diagnostics.report(kHint);  // After getopt_long's own message.
                return kFailure;
        }
    }
    for (int index = optind; index < argc; ++index)
        settings.targets.push_back({TargetArgument::Kind::kDescription, argv[index]});
    if (settings.output.empty()) return refuse(diagnostics, "-o must say where the graphs go");
    if (settings.targets.empty() && !settings.targetAll) return refuse(diagnostics, "no process is named");
    if (!settings.targets.empty() && settings.targetAll)
        return refuse(diagnostics, "-a takes all processes, and none can be named beside it");
    return std::nullopt;
}

/// The requested processes in ascending order, and whether all were found.
struct SelectedPids {
    std::vector<std::int32_t> pids;
    bool isComplete = true;
};

SelectedPids selectPids(Platform& platform, Diagnostics& diagnostics, const CaptureSettings& settings) {
    SelectedPids selected;
    if (settings.targetAll) {
        for (const BsdInfoRecord& record : ZBProcess::copyAllBsdInfos(platform)) {
            const auto pid = static_cast<std::int32_t>(record.pbi_pid);
            const bool isKernel = (record.pbi_flags & BsdInfoRecord::kFlagSystem) != 0;
            if (!isKernel && pid != getpid()) selected.pids.push_back(pid);
        }
        return selected;
    }
    std::vector<std::string> errors;
    for (const auto& [pid, how] :
         selectProcesses(platform, settings.targets, {}, settings.targetChildren, errors))
        selected.pids.push_back(pid);
    for (const std::string& error : errors) diagnostics.report(error);
    selected.isComplete = errors.empty();
    return selected;
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// File name for a process: short enough for any file system, not hidden, and without a leading "-".
std::string fileNameOf(const ZBProcess& process) {
    constexpr std::size_t kLongestName = 200;
    std::string name = printable(process.name(), kLongestName);
    std::ranges::replace(name, '/', '_');
    if (name.starts_with('-') || name.starts_with('.')) name[0] = '_';
    return name + "-" + std::to_string(process.pid()) + ".memgraph";
}

/// A name that no other run uses.
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

/// For example "Linux 6.1.0 x86_64".
std::string machineDescription() {
    utsname machine{};
    uname(&machine);
    return std::string(machine.sysname) + " " + machine.release + " " + machine.machine;
}

/// The processes, gathered as for a report. Processes that could not be opened or fully read are left out and
/// reported.
class Capture {
  public:
    Capture(Platform& platform, Diagnostics& diagnostics, const std::vector<std::int32_t>& pids) {
        Targets processes;
        for (const std::int32_t pid : pids) {
            if (auto process = ZBCapturedProcess::capturedProcessWithPid(platform, pid)) {
                _captured.push_back(process.get());
                processes.push_back(std::move(process));
            } else {
                diagnostics.report(pid == 0
                                       ? "the kernel can't be saved"
                                       : "unable to open process " + std::to_string(pid) + " (try as root?)");
            }
        }
        _zorbel = std::make_unique<ZBZorbel>(platform, std::move(processes));
        _zorbel->gatherData();
        std::erase_if(_captured, [&](const ZBCapturedProcess* process) {
            for (const auto* problems : {&process->errors(), &process->warnings()})
                for (const std::string& problem : *problems) diagnostics.report(problem + "; not saved");
            return !process->errors().empty() || !process->warnings().empty();
        });
        ZBCapturedProcess::separateObjects(_captured);
    }

    [[nodiscard]] const std::vector<ZBCapturedProcess*>& processes() const { return _captured; }

  private:
    std::unique_ptr<ZBZorbel> _zorbel;  ///< Owns the processes.
    std::vector<ZBCapturedProcess*> _captured;
};

/// Saves one graph to a file or to standard output. False, with a message, if that fails.
bool save(const MemoryGraph& graph, const std::string& path, bool force, Diagnostics& diagnostics) {
    if (path == "-") {
        writeMemoryGraph(stdout, graph);
        return true;  // Errors show when stdout is flushed at the end.
    }
    const auto saved = saveGraph(graph, path, force);
    if (saved) return true;
    const char* hint = "";
    struct stat there {};
    if (saved.error().code == EEXIST && lstat(path.c_str(), &there) == 0)
        hint = S_ISREG(there.st_mode) ? " (--force replaces it)" : ", and is no regular file";
    diagnostics.report(saved.error().on(path).description + hint);
    return false;
}

}  // namespace

int capture(int argc, char* const argv[], Platform& platform) {
    PrefixedDiagnostics diagnostics(platform.diagnostics(), kPrefix);
    CaptureSettings settings;
    if (const auto status = parse(argc, argv, platform.diagnostics(), settings)) return *status;
    const SelectedPids selected = selectPids(platform, diagnostics, settings);
    const std::size_t count = selected.pids.size();
    const bool hasDirectory = isDirectory(settings.output);
    if (count > 1 && !hasDirectory)
        return refuse(platform.diagnostics(), std::to_string(count) + " processes need a directory, and " +
                                                  settings.output + " is none");
    if (settings.breaksDown) setBreakDownPhysZorbel(platform, true);

    const Capture captured(platform, diagnostics, selected.pids);
    const std::string captureName = newCaptureName();
    const std::string description = machineDescription();
    std::size_t saved = 0;
    for (const ZBCapturedProcess* process : captured.processes()) {
        MemoryGraph graph = process->graph();
        graph.capture = captureName;
        graph.processDescription = description;
        const std::string path =
            hasDirectory ? settings.output + "/" + fileNameOf(*process) : settings.output;
        if (!save(graph, path, settings.force, diagnostics)) continue;
        ++saved;
        if (hasDirectory) std::printf("%s\n", path.c_str());
    }
    // With --all, processes that can't be opened do not count as missing; those that can't be saved do.
    const std::size_t expected = settings.targetAll ? captured.processes().size() : count;
    bool isComplete = selected.isComplete && saved == expected;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        diagnostics.report(Error::last().on("standard output").description);
        isComplete = false;
    }
    return isComplete && saved > 0 ? kSuccess : kFailure;
}

}  // namespace zorbel
