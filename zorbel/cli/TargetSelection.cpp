#include "cli/TargetSelection.h"

#include <unistd.h>

#include <algorithm>

namespace zorbel {

namespace {

/// Distinct descriptions, and the position of each one's first argument.
struct Descriptions {
    std::vector<std::string> texts;
    std::vector<std::size_t> positions;

    void add(const std::string& text, std::size_t position) {
        if (!_known.insert(text).second) return;
        texts.push_back(text);
        positions.push_back(position);
    }

  private:
    std::set<std::string> _known;
};

void add(SelectedProcesses& selected, std::int32_t pid, SelectedProcess process) {
    const auto [known, isNew] = selected.try_emplace(pid, process);
    if (isNew) return;
    known->second.name = process.name;
    known->second.position = std::min(known->second.position, process.position);
}

void addDescendants(Platform& platform, SelectedProcesses& selected) {
    std::vector<std::int32_t> pids;
    for (const auto& [pid, process] : selected) pids.push_back(pid);
    const auto family = ZBProcess::childPidsForPids(platform, pids);
    if (!family) return;
    for (auto& [pid, process] : selected) process.name = std::nullopt;
    for (const std::int32_t pid : *family) selected.try_emplace(pid, SelectedProcess{{}, SIZE_MAX});
}

}  // namespace

SelectedProcesses selectProcesses(Platform& platform, std::span<const TargetArgument> arguments,
                                  const std::set<std::int32_t>& excludedPids, bool withDescendants,
                                  std::vector<std::string>& errors) {
    SelectedProcesses selected;
    Descriptions descriptions;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i].kind == TargetArgument::Kind::kPid) add(selected, arguments[i].pid, {{}, i});
        if (arguments[i].kind == TargetArgument::Kind::kDescription) descriptions.add(arguments[i].text, i);
    }
    if (!descriptions.texts.empty()) {
        const auto found = ZBProcess::pidsForStringDescriptions(platform, descriptions.texts, &errors);
        if (found)
            for (const DescribedProcess& process : *found)
                add(selected, process.pid, {process.name, descriptions.positions[process.description]});
    }
    std::erase_if(selected, [&](const auto& process) { return excludedPids.contains(process.first); });
    if (withDescendants) addDescendants(platform, selected);
    selected.erase(getpid());  // The tool may be a descendant of a selected shell, but is never a target.
    return selected;
}

std::set<std::int32_t> excludedPids(Platform& platform, const std::vector<std::string>& descriptions) {
    std::set<std::int32_t> excluded = {getpid()};
    if (descriptions.empty()) return excluded;
    if (const auto found = ZBProcess::pidsForStringDescriptions(platform, descriptions, nullptr))
        for (const DescribedProcess& process : *found) excluded.insert(process.pid);
    return excluded;
}

}  // namespace zorbel
