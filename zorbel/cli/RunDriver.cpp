#include "cli/RunDriver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <limits>
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

constexpr int kFailure = 1;

constexpr const char* kCorpseUsage =
    "Usage: zorbel --corpsePid pid --corpseName name --corpseDirtyFlags dirtyFlags --corpseProcFlags "
    "procFlags\n"
    "\t--corpsePid pid \t\t\t\tpid of the corpse passed to zorbel\n"
    "\t--corpseName name \t\t\t\tname of the corpse passed to zorbel\n"
    "\t--corpseDirtyFlags dirtyFlags \t\t\tdirty flags of the corpse passed to zorbel in hex\n"
    "\t--corpseProcFlags procFlags \t\t\tproc flags of the corpse passed to zorbel in hex\n";

/// Key of a memory graph among the targets, by its path as it was typed. Live processes have the numbers from
/// 0 on.
std::int64_t keyOfPath(const std::string& path) {
    return std::numeric_limits<std::int64_t>::min() |
           static_cast<std::int64_t>(std::hash<std::string>()(path));
}

/// Adds what a text that names a file stands for: a memory graph, or failing that a process.
bool takeFile(Platform& platform, const std::string& path, CommandLine& commandLine) {
    PlatformError error;
    if (auto graph = ZBMemgraphProcess::processWithMemgraph(platform, path, error)) {
        RunSettings& settings = commandLine.settings;
        const bool mode = graph->breakDownPhysZorbel();
        if (settings.breakDownModeFixed && settings.breakDownMode != mode) {
            std::fprintf(stderr,
                         "Memgraph was gathered with an analysis mode that conflicts with other memgraphs or "
                         "command line arguments: %s\n",
                         path.c_str());
            return false;
        }
        settings.breakDownMode = mode;
        settings.breakDownModeFixed = true;
        commandLine.targets[keyOfPath(path)] = std::move(graph);
        return true;
    }
    const auto described = ZBProcess::pidsForStringDescriptions(platform, {path}, nullptr);
    if (!described || described->empty()) {
        std::fprintf(stderr, "Error opening memgraph %s: %s\n", path.c_str(), error.description.c_str());
        return false;
    }
    for (const auto& [pid, description] : *described) commandLine.pidToName[pid] = description;
    return true;
}

/// Sorts the positional arguments: texts that name no file are descriptions of processes.
bool takePositionalArguments(Platform& platform, CommandLine& commandLine) {
    for (const std::string& argument : commandLine.positionalArguments) {
        struct stat status {};
        if (stat(argument.c_str(), &status) != 0)
            commandLine.processDescriptions.insert(argument);
        else if (!takeFile(platform, argument, commandLine))
            return false;
    }
    return true;
}

bool checkTargets(const CommandLine& commandLine) {
    const RunSettings& settings = commandLine.settings;
    if (commandLine.pidToName.empty() && commandLine.targets.empty() &&
        commandLine.processDescriptions.empty() && !settings.targetAll && !settings.corpseMode) {
        std::fputs("Must specify at least one process or memgraph\n", stderr);
        printUsage();
        return false;
    }
    if (settings.targetAll && geteuid() != 0) {
        std::fputs("Must run as root.\n", stderr);
        printUsage();
        return false;
    }
    return true;
}

/// Takes over the corpse that the options describe: its task, or kTaskNull, and why on standard error, where
/// there is none.
TaskName takeCorpse(Platform& platform, const RunSettings& settings) {
    std::vector<TaskName> ports;
    const char* problem = nullptr;
    if (!settings.corpseName || settings.corpsePid <= 0)
        problem = "Invalid arguments for corpse mode\n";
    else if (platform.mach_ports_lookup(ports) != kKernSuccess || ports.empty() ||
             ports.front() == kTaskNull || ports.front() == kTaskDead)
        problem = "Failed to retrieve corpse port\n";
    if (problem == nullptr) return ports.front();
    std::fputs(problem, stderr);
    std::fputs(kCorpseUsage, stdout);
    return kTaskNull;
}

std::set<std::int32_t> excludedPids(Platform& platform, const CommandLine& commandLine) {
    std::set<std::int32_t> excluded = {getpid()};
    if (commandLine.settings.corpseMode) excluded.insert(commandLine.settings.corpsePid);
    if (commandLine.excludeDescriptions.empty()) return excluded;
    if (const auto pids =
            ZBProcess::pidsForStringDescriptions(platform, commandLine.excludeDescriptions, nullptr))
        for (const auto& [pid, description] : *pids) excluded.insert(pid);
    return excluded;
}

/// The pids that names, numbers and, where asked for, descent select.
PidDescriptions selectPids(Platform& platform, const CommandLine& commandLine,
                           const std::set<std::int32_t>& excluded) {
    PidDescriptions selected = commandLine.pidToName;
    if (!commandLine.processDescriptions.empty()) {
        std::vector<std::string> errors;
        const auto described =
            ZBProcess::pidsForStringDescriptions(platform, commandLine.processDescriptions, &errors);
        if (described)
            for (const auto& [pid, description] : *described) selected[pid] = description;
        for (const std::string& error : errors) std::fprintf(stderr, "%s\n", error.c_str());
    }
    for (const std::int32_t pid : excluded) selected.erase(pid);
    if (commandLine.settings.targetChildren) {
        std::vector<std::int32_t> pids;
        for (const auto& [pid, description] : selected) pids.push_back(pid);
        if (const auto family = ZBProcess::childPidsForPids(platform, pids))
            for (const std::int32_t pid : *family) selected[pid] = std::nullopt;
        selected.erase(getpid());  // A child of the shell that was asked for, but never a target.
    }
    return selected;
}

void reportUnopenable(std::int32_t pid, const std::optional<std::string>& description) {
    if (description)
        std::fprintf(stderr, "Unable to analyze process %s [%ld] (try as root?)\n", description->c_str(),
                     static_cast<long>(pid));
    else
        std::fprintf(stderr, "Unable to analyze process with pid %ld (try as root?)\n",
                     static_cast<long>(pid));
}

/// Adds live processes to the memory graphs, or puts all that there are in their place.
TargetMap openTargets(Platform& platform, CommandLine& commandLine) {
    const std::set<std::int32_t> excluded = excludedPids(platform, commandLine);
    if (commandLine.settings.targetAll)
        return ZBProcess::allProcessesExcludingPids(platform, excluded).value_or(TargetMap());
    TargetMap targets = std::move(commandLine.targets);
    for (const auto& [pid, description] : selectPids(platform, commandLine, excluded)) {
        if (auto process = ZBProcess::processWithPid(platform, pid))
            targets[pid] = std::move(process);
        else
            reportUnopenable(pid, description);
    }
    return targets;
}

std::unique_ptr<ZBProcess> openCorpse(Platform& platform, TaskName corpse, const RunSettings& settings) {
    if (corpse == kTaskNull) return nullptr;
    return ZBCorpseProcess::processWithCorpse(platform, corpse, settings.corpsePid, *settings.corpseName,
                                              settings.corpseDirtyFlags, settings.corpseProcFlags);
}

void gatherCancellably(ZBZorbel& zorbel) {
    const auto cancelHandler = ZBZorbel::installCancelHandler([&zorbel] {
        zorbel.cancel();
        std::fputs("Exiting early due to SIGINT\n", stderr);
    });
    zorbel.gatherData();
}

}  // namespace

int run(int argc, char* const argv[], Platform& platform) {
    CommandLine commandLine;
    if (const auto status = parseCommandLine(argc, argv, commandLine)) return *status;
    if (!takePositionalArguments(platform, commandLine)) return kFailure;
    if (!checkTargets(commandLine)) return kFailure;

    const RunSettings& settings = commandLine.settings;
    const TaskName corpse = settings.corpseMode ? takeCorpse(platform, settings) : kTaskNull;
    if (settings.corpseMode && corpse == kTaskNull) return kFailure;
    if (settings.breakDownMode) {
        setBreakDownPhysZorbel(platform, true);
        breakDownPhysZorbel(platform);  // Reports now what every process would run into.
    }

    TargetMap targets = openTargets(platform, commandLine);
    if (auto process = openCorpse(platform, corpse, settings))
        targets[settings.corpsePid] = std::move(process);
    if (targets.empty()) {
        std::fputs(
            "Unable to find any processes matching the supplied process names or pids (try as root?)\n",
            stderr);
        return kFailure;
    }
    if (settings.skipIdleExitClean) targets = ZBProcess::removeIdleExitCleanProcessesFrom(std::move(targets));

    std::vector<std::unique_ptr<ZBProcess>> processes;
    processes.reserve(targets.size());
    for (auto& [key, process] : targets) processes.push_back(std::move(process));
    ZBZorbel zorbel(std::move(processes));
    gatherCancellably(zorbel);

    zorbel.addOutputFormatter(
        std::make_shared<ZBOutputFormatterText>(platform, settings.summaryFormat, settings.outputOptions));
    if (settings.jsonPath)
        zorbel.addOutputFormatter(std::make_shared<ZBOutputFormatterJSON>(platform, *settings.jsonPath));
    zorbel.printOutputVerbose(settings.lattixOutput, settings.summarize);
    return 0;
}

}  // namespace zorbel
