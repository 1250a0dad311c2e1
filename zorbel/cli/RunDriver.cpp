#include "cli/RunDriver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>

#include "aggregate/ZBZorbel.h"
#include "cli/CommandLine.h"
#include "inspect/BreakDownMode.h"
#include "inspect/ZBCorpseProcess.h"
#include "inspect/ZBMemgraphProcess.h"
#include "report/ZBOutputFormatterJSON.h"
#include "report/ZBOutputFormatterText.h"

namespace zorbel {

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

constexpr const char* kCorpseUsage =
    "Usage: zorbel --corpsePid pid --corpseName name --corpseDirtyFlags dirtyFlags --corpseProcFlags "
    "procFlags\n"
    "\t--corpsePid pid \t\t\t\tpid of the corpse passed to zorbel\n"
    "\t--corpseName name \t\t\t\tname of the corpse passed to zorbel\n"
    "\t--corpseDirtyFlags dirtyFlags \t\t\tdirty flags of the corpse passed to zorbel in hex\n"
    "\t--corpseProcFlags procFlags \t\t\tproc flags of the corpse passed to zorbel in hex\n";

/// An open target, and its position among targets with the same pid.
struct OpenTarget {
    std::unique_ptr<ZBProcess> process;
    std::size_t position = 0;  ///< Of its argument on the command line.
};

/// Opens the memory graphs among the arguments; all other texts become descriptions of processes. False, with
/// a message, if a file ends the run.
///
/// The first graph sets the breakdown mode unless it is already fixed. All other graphs must have the same
/// mode. The same path given twice is one target.
bool openGraphs(Platform& platform, CommandLine& commandLine, std::vector<OpenTarget>& targets) {
    std::set<std::string> opened;
    RunSettings& settings = commandLine.settings;
    for (std::size_t i = 0; i < commandLine.targets.size(); ++i) {
        TargetArgument& argument = commandLine.targets[i];
        struct stat status {};
        if (argument.kind != TargetArgument::Kind::kFileOrDescription) continue;
        if (stat(argument.text.c_str(), &status) != 0) {
            argument.kind = TargetArgument::Kind::kDescription;
            continue;
        }
        auto graph = ZBMemgraphProcess::processWithMemgraph(platform, argument.text);
        if (!graph) {
            // A file may have the same name as a process.
            const auto found = ZBProcess::pidsForStringDescriptions(platform, {argument.text}, nullptr);
            if (!found || found->empty()) {
                platform.diagnostics().report("Error opening memgraph " + argument.text + ": " +
                                              graph.error().description);
                return false;
            }
            argument.kind = TargetArgument::Kind::kDescription;
            continue;
        }
        const bool mode = (*graph)->breakDownPhysZorbel();
        if (settings.breakDownModeFixed && settings.breakDownMode != mode) {
            platform.diagnostics().report(
                "Memgraph was gathered with an analysis mode that conflicts with other memgraphs or "
                "command line arguments: " +
                argument.text);
            return false;
        }
        settings.breakDownMode = mode;
        settings.breakDownModeFixed = true;
        if (opened.insert(argument.text).second) targets.push_back({*std::move(graph), i});
    }
    return true;
}

bool checkTargets(Diagnostics& diagnostics, const CommandLine& commandLine) {
    const RunSettings& settings = commandLine.settings;
    if (commandLine.targets.empty() && !settings.targetAll && !settings.corpseMode) {
        diagnostics.report("Must specify at least one process or memgraph");
        printUsage();
        return false;
    }
    if (settings.targetAll && geteuid() != 0) {
        diagnostics.report("Must run as root.");
        printUsage();
        return false;
    }
    return true;
}

/// The task of the corpse that the options describe; kTaskNull, with a message, if there is none.
TaskName takeCorpse(Platform& platform, const RunSettings& settings) {
    std::vector<TaskName> ports;
    const char* problem = nullptr;
    if (!settings.corpseName || settings.corpsePid <= 0)
        problem = "Invalid arguments for corpse mode";
    else if (platform.mach_ports_lookup(ports) != kKernSuccess || ports.empty() ||
             ports.front() == kTaskNull || ports.front() == kTaskDead)
        problem = "Failed to retrieve corpse port";
    if (problem == nullptr) return ports.front();
    platform.diagnostics().report(problem);
    std::fputs(kCorpseUsage, stdout);
    return kTaskNull;
}

void reportUnopenable(Diagnostics& diagnostics, std::int32_t pid, const std::optional<std::string>& name) {
    const std::string number = std::to_string(pid);
    diagnostics.report(name ? "Unable to analyze process " + *name + " [" + number + "] (try as root?)"
                            : "Unable to analyze process with pid " + number + " (try as root?)");
}

/// Opens the live processes that the arguments select and adds them to the targets.
void openProcesses(Platform& platform, const CommandLine& commandLine, const std::set<std::int32_t>& excluded,
                   std::vector<OpenTarget>& targets) {
    std::vector<std::string> errors;
    const SelectedProcesses selected =
        selectProcesses(platform, commandLine.targets, excluded, commandLine.settings.targetChildren, errors);
    for (const std::string& error : errors) platform.diagnostics().report(error);
    for (const auto& [pid, how] : selected) {
        if (auto process = ZBProcess::processWithPid(platform, pid))
            targets.push_back({std::move(process), how.position});
        else
            reportUnopenable(platform.diagnostics(), pid, how.name);
    }
}

std::unique_ptr<ZBProcess> openCorpse(Platform& platform, TaskName corpse, const RunSettings& settings) {
    if (corpse == kTaskNull) return nullptr;
    return ZBCorpseProcess::processWithCorpse(platform, corpse, settings.corpsePid, *settings.corpseName,
                                              settings.corpseDirtyFlags, settings.corpseProcFlags);
}

/// Opens all targets and sorts them by pid; targets with the same pid keep the order of the command line.
Targets openTargets(Platform& platform, const CommandLine& commandLine, TaskName corpse,
                    std::vector<OpenTarget> targets) {
    const RunSettings& settings = commandLine.settings;
    std::set<std::int32_t> excluded = excludedPids(platform, commandLine.excludeDescriptions);
    if (settings.corpseMode) excluded.insert(settings.corpsePid);
    if (settings.targetAll) {
        targets.clear();
        for (auto& process : ZBProcess::allProcessesExcludingPids(platform, excluded).value_or(Targets()))
            targets.push_back({std::move(process), 0});
    } else {
        openProcesses(platform, commandLine, excluded, targets);
    }
    if (auto process = openCorpse(platform, corpse, settings))
        targets.push_back({std::move(process), SIZE_MAX});
    std::ranges::stable_sort(targets, {}, [](const OpenTarget& target) {
        return std::pair(target.process->pid(), target.position);
    });
    Targets ordered;
    ordered.reserve(targets.size());
    for (OpenTarget& target : targets) ordered.push_back(std::move(target.process));
    return ordered;
}

/// Runs all phases from reading to attribution. SIGINT ends them early if output does not go to a terminal.
void gatherCancellably(Platform& platform, ZBZorbel& zorbel) {
    const auto cancelHandler = ZBZorbel::installCancelHandler([&] {
        zorbel.cancel();
        platform.diagnostics().report("Exiting early due to SIGINT");
    });
    zorbel.gatherData();
}

void report(Platform& platform, const RunSettings& settings, ZBZorbel& zorbel) {
    zorbel.addOutputFormatter(
        std::make_shared<ZBOutputFormatterText>(platform, settings.summaryFormat, settings.outputOptions));
    if (settings.jsonPath)
        zorbel.addOutputFormatter(std::make_shared<ZBOutputFormatterJSON>(platform, *settings.jsonPath));
    zorbel.printOutputVerbose(settings.lattixOutput, settings.summarize);
}

}  // namespace

// The phases of a run: select, open, read, settle, walk, attribute, report.
int run(int argc, char* const argv[], Platform& platform) {
    // Select the targets. This opens files: only the contents show whether they are memory graphs.
    CommandLine commandLine;
    if (const auto status = parseCommandLine(argc, argv, platform.diagnostics(), commandLine)) return *status;
    std::vector<OpenTarget> graphs;
    if (!openGraphs(platform, commandLine, graphs)) return kFailure;
    if (!checkTargets(platform.diagnostics(), commandLine)) return kFailure;
    const RunSettings& settings = commandLine.settings;
    const TaskName corpse = settings.corpseMode ? takeCorpse(platform, settings) : kTaskNull;
    if (settings.corpseMode && corpse == kTaskNull) return kFailure;

    // Open. A process takes the breakdown mode when it is opened.
    if (settings.breakDownMode) {
        setBreakDownPhysZorbel(platform, true);
        breakDownPhysZorbel(platform);  // Reports an error now that every process would have.
    }
    Targets targets = openTargets(platform, commandLine, corpse, std::move(graphs));
    if (targets.empty()) {
        platform.diagnostics().report(
            "Unable to find any processes matching the supplied process names or pids (try as root?)");
        return kFailure;
    }
    if (settings.skipIdleExitClean) targets = ZBProcess::removeIdleExitCleanProcessesFrom(std::move(targets));

    // Read (in parallel), settle, walk (in parallel) and attribute: see ZBZorbel::gatherData.
    ZBZorbel zorbel(platform, std::move(targets));
    zorbel.setGathersDetails(settings.jsonPath.has_value());
    gatherCancellably(platform, zorbel);

    report(platform, settings, zorbel);
    return kSuccess;
}

}  // namespace zorbel
