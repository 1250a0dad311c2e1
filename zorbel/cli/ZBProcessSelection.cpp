// How ZBProcess turns what the user typed into pids and processes.

#include <algorithm>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

#include "inspect/ZBProcess.h"

namespace zorbel {

namespace {

std::int32_t pidOf(const BsdInfoRecord& record) { return static_cast<std::int32_t>(record.pbi_pid); }
std::int32_t parentOf(const BsdInfoRecord& record) { return static_cast<std::int32_t>(record.pbi_ppid); }

/// The integer that a text begins with, after white space; what follows the digits does not matter.
std::optional<long> leadingInteger(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) return std::nullopt;
    return value;
}

/// Finds the first record that a description matches. Naming a process asks the system, so names are looked
/// up only as far into the list as a description needs, and once for all descriptions.
class DescriptionMatcher {
  public:
    DescriptionMatcher(Platform& platform, const std::vector<BsdInfoRecord>& records)
        : _platform(platform), _records(records) {
        for (std::size_t i = 0; i < records.size(); ++i) _indexOfPid.emplace(pidOf(records[i]), i);
    }

    struct Match {
        std::int32_t pid;
        bool byName;
    };

    std::optional<Match> find(const std::string& description) {
        std::size_t numbered = _records.size();
        if (const auto number = leadingInteger(description))
            if (const auto found = _indexOfPid.find(*number); found != _indexOfPid.end())
                numbered = found->second;
        // A record's name goes before its number, so the numbered record itself is still looked at by name.
        const std::size_t named = _firstNamed(description, std::min(numbered + 1, _records.size()));
        if (named <= numbered && named < _records.size()) return Match{pidOf(_records[named]), true};
        if (numbered < _records.size()) return Match{pidOf(_records[numbered]), false};
        return std::nullopt;
    }

  private:
    /// Index of the first record of that name, if it lies before the limit; otherwise some index that does
    /// not.
    std::size_t _firstNamed(const std::string& name, std::size_t limit) {
        if (const auto found = _indexOfName.find(name); found != _indexOfName.end()) return found->second;
        while (_named < limit) {
            std::string next = ZBProcess::_nameForBsdInfo(_platform, _records[_named]);
            const bool matches = next == name;
            _indexOfName.emplace(std::move(next), _named++);
            if (matches) return _named - 1;
        }
        return _records.size();
    }

    Platform& _platform;
    const std::vector<BsdInfoRecord>& _records;
    std::unordered_map<long, std::size_t> _indexOfPid;
    std::unordered_map<std::string, std::size_t> _indexOfName;  // Of the records before _named.
    std::size_t _named = 0;
};

}  // namespace

std::vector<BsdInfoRecord> ZBProcess::copyAllBsdInfos(Platform& platform) {
    std::vector<std::int32_t> pids;
    std::vector<BsdInfoRecord> records;
    if (!platform.proc_listallpids(pids)) return records;
    records.reserve(pids.size());
    for (const std::int32_t pid : pids) {
        BsdInfoRecord record;
        if (platform.proc_pidinfo(pid, record)) records.push_back(record);
    }
    return records;
}

std::unique_ptr<ZBProcess> ZBProcess::processWithPid(Platform& platform, std::int32_t pid) {
    BsdInfoRecord record;
    if (!platform.proc_pidinfo(pid, record)) return nullptr;
    return processWithBsdInfo(platform, record);
}

std::optional<TargetMap> ZBProcess::allProcessesExcludingPids(Platform& platform,
                                                              const std::set<std::int32_t>& excludedPids) {
    const std::vector<BsdInfoRecord> records = copyAllBsdInfos(platform);
    if (records.empty()) return std::nullopt;
    TargetMap targets;
    for (const BsdInfoRecord& record : records) {
        if (excludedPids.contains(pidOf(record))) continue;
        if (auto process = processWithBsdInfo(platform, record)) targets[pidOf(record)] = std::move(process);
    }
    return targets;
}

std::optional<PidDescriptions> ZBProcess::pidsForStringDescriptions(Platform& platform,
                                                                    const std::set<std::string>& descriptions,
                                                                    std::vector<std::string>* errors) {
    const std::vector<BsdInfoRecord> records = copyAllBsdInfos(platform);
    if (records.empty()) {
        if (errors != nullptr) *errors = {"Unable to obtain system process list"};
        return std::nullopt;
    }
    PidDescriptions pids;
    DescriptionMatcher matcher(platform, records);
    for (const std::string& description : descriptions) {
        if (const auto match = matcher.find(description))
            pids[match->pid] = match->byName ? std::optional(description) : std::nullopt;
        else if (errors != nullptr)
            errors->push_back("Unable to find pid for process matching '" + description + "'");
    }
    return pids;
}

std::optional<std::vector<std::int32_t>> ZBProcess::childPidsForPids(Platform& platform,
                                                                     const std::vector<std::int32_t>& pids) {
    const std::vector<BsdInfoRecord> records = copyAllBsdInfos(platform);
    if (records.empty()) return std::nullopt;
    std::unordered_map<std::int32_t, std::vector<std::size_t>> childrenOf;
    for (std::size_t i = 0; i < records.size(); ++i) childrenOf[parentOf(records[i])].push_back(i);

    std::vector<std::int32_t> result = pids;
    // The kernel is its own parent: what was seen once is not widened again.
    std::unordered_set<std::int32_t> seen(pids.begin(), pids.end());
    std::vector<std::int32_t> level = pids;
    while (!level.empty()) {
        std::vector<std::size_t> children;
        for (const std::int32_t pid : level)
            if (const auto found = childrenOf.find(pid); found != childrenOf.end())
                for (const std::size_t child : found->second)
                    if (seen.insert(pidOf(records[child])).second) children.push_back(child);
        std::sort(children.begin(), children.end());  // Within a level, the system's order.
        level.clear();
        for (const std::size_t child : children) level.push_back(pidOf(records[child]));
        result.insert(result.end(), level.begin(), level.end());
    }
    return result;
}

TargetMap ZBProcess::removeIdleExitCleanProcessesFrom(TargetMap targets) {
    std::erase_if(targets, [](const auto& target) {
        return target.second->idleExitStatus() == ZBIdleExitStatus::kIdleExitClean;
    });
    return targets;
}

}  // namespace zorbel
