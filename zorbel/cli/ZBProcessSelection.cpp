// The part of ZBProcess that turns the user's input into pids and processes.

#include <algorithm>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

#include "inspect/ZBProcess.h"

namespace zorbel {

namespace {

std::int32_t pidOf(const BsdInfoRecord& record) { return static_cast<std::int32_t>(record.pbi_pid); }
std::int32_t parentOf(const BsdInfoRecord& record) { return static_cast<std::int32_t>(record.pbi_ppid); }

/// The integer at the start of the text, after white space; the rest is ignored.
std::optional<long> leadingInteger(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) return std::nullopt;
    return value;
}

/// Finds the first process that matches a description. Asking the system about a process takes time. So names
/// are looked up once for all descriptions and only as far into the list as needed, and records only if a
/// process has no other name.
class DescriptionMatcher {
  public:
    DescriptionMatcher(Platform& platform, std::vector<std::int32_t> pids)
        : _platform(platform), _pids(std::move(pids)) {
        for (std::size_t i = 0; i < _pids.size(); ++i) _indexOfPid.emplace(_pids[i], i);
    }

    struct Match {
        std::int32_t pid;
        bool byName;
    };

    std::optional<Match> find(const std::string& description) {
        std::size_t numbered = _pids.size();
        if (const auto number = leadingInteger(description))
            if (const auto found = _indexOfPid.find(*number); found != _indexOfPid.end())
                numbered = found->second;
        // A match by name has priority at the same index, so the process with this pid is checked by name
        // too.
        const std::size_t named = _firstNamed(description, std::min(numbered + 1, _pids.size()));
        if (named <= numbered && named < _pids.size()) return Match{_pids[named], true};
        if (numbered < _pids.size() && _isProcess[numbered]) return Match{_pids[numbered], false};
        return _firstCalling(description);
    }

  private:
    /// Index of the first process with that name if it is below the limit, else any index at or above it.
    std::size_t _firstNamed(const std::string& name, std::size_t limit) {
        if (const auto found = _indexOfName.find(name); found != _indexOfName.end()) return found->second;
        while (_isProcess.size() < limit) {
            const std::size_t index = _isProcess.size();
            std::optional<std::string> next = _nameOf(_pids[index]);
            _isProcess.push_back(next.has_value());
            if (!next) continue;
            const bool matches = *next == name;
            _indexOfName.emplace(std::move(*next), index);
            if (matches) return index;
        }
        return _pids.size();
    }

    /// The first process that calls itself so: a script is named after its interpreter, but the system knows
    /// it by its own name, of which it may keep the beginning only.
    std::optional<Match> _firstCalling(const std::string& name) {
        constexpr std::size_t kMostKept = sizeof(BsdInfoRecord::pbi_comm) - 1;
        for (const std::int32_t pid : _pids) {
            BsdInfoRecord record;
            if (!_platform.proc_pidinfo(pid, record)) continue;
            const std::string own = ZBProcess::_nameForBsdInfoCommName(record);
            if (own == name || (own.size() == kMostKept && name.starts_with(own))) return Match{pid, true};
        }
        return std::nullopt;
    }

    /// Name of a process; nothing if it has exited or never existed.
    std::optional<std::string> _nameOf(std::int32_t pid) {
        std::string area;
        if (_platform.sysctl_procargs(pid, area))
            if (auto name = ZBProcess::_nameInArgumentArea(std::move(area))) return name;
        BsdInfoRecord record;
        if (!_platform.proc_pidinfo(pid, record)) return std::nullopt;
        return ZBProcess::_nameForBsdInfoCommName(record);
    }

    Platform& _platform;
    std::vector<std::int32_t> _pids;
    std::unordered_map<long, std::size_t> _indexOfPid;
    // For the first pids of the list, which have been looked up.
    std::vector<bool> _isProcess;
    std::unordered_map<std::string, std::size_t> _indexOfName;
};

std::vector<BsdInfoRecord> bsdInfosOf(Platform& platform, const std::vector<std::int32_t>& pids) {
    std::vector<BsdInfoRecord> records;
    records.reserve(pids.size());
    for (const std::int32_t pid : pids) {
        BsdInfoRecord record;
        if (platform.proc_pidinfo(pid, record)) records.push_back(record);
    }
    return records;
}

}  // namespace

std::vector<BsdInfoRecord> ZBProcess::copyAllBsdInfos(Platform& platform) {
    std::vector<std::int32_t> pids;
    if (!platform.proc_listallpids(pids)) return {};
    return bsdInfosOf(platform, pids);
}

std::optional<Targets> ZBProcess::allProcessesExcludingPids(Platform& platform,
                                                            const std::set<std::int32_t>& excludedPids) {
    std::vector<std::int32_t> pids;
    if (!platform.proc_listallpids(pids) || pids.empty()) return std::nullopt;
    std::erase_if(pids, [&](std::int32_t pid) { return excludedPids.contains(pid); });
    platform.willOpen(pids);
    Targets targets;
    for (const BsdInfoRecord& record : bsdInfosOf(platform, pids)) {
        if (auto process = processWithBsdInfo(platform, record)) targets.push_back(std::move(process));
    }
    return targets;
}

std::optional<std::vector<DescribedProcess>> ZBProcess::pidsForStringDescriptions(
    Platform& platform, const std::vector<std::string>& descriptions, std::vector<std::string>* errors) {
    std::vector<std::int32_t> listed;
    if (!platform.proc_listallpids(listed) || listed.empty()) {
        if (errors != nullptr) *errors = {"Unable to obtain system process list"};
        return std::nullopt;
    }
    std::vector<DescribedProcess> found;
    DescriptionMatcher matcher(platform, std::move(listed));
    for (std::size_t i = 0; i < descriptions.size(); ++i) {
        if (const auto match = matcher.find(descriptions[i]))
            found.push_back({match->pid, match->byName ? std::optional(descriptions[i]) : std::nullopt, i});
        else if (errors != nullptr)
            errors->push_back("Unable to find pid for process matching '" + descriptions[i] + "'");
    }
    return found;
}

std::optional<std::vector<std::int32_t>> ZBProcess::childPidsForPids(Platform& platform,
                                                                     const std::vector<std::int32_t>& pids) {
    const std::vector<BsdInfoRecord> records = copyAllBsdInfos(platform);
    if (records.empty()) return std::nullopt;
    std::unordered_map<std::int32_t, std::vector<std::size_t>> childrenOf;
    for (std::size_t i = 0; i < records.size(); ++i) childrenOf[parentOf(records[i])].push_back(i);

    std::vector<std::int32_t> result = pids;
    // The kernel is its own parent, so each process is visited only once.
    std::unordered_set<std::int32_t> seen(pids.begin(), pids.end());
    std::vector<std::int32_t> level = pids;
    while (!level.empty()) {
        std::vector<std::size_t> children;
        for (const std::int32_t pid : level)
            if (const auto found = childrenOf.find(pid); found != childrenOf.end())
                for (const std::size_t child : found->second)
                    if (seen.insert(pidOf(records[child])).second) children.push_back(child);
        std::sort(children.begin(), children.end());  // Each level in the order of the system's list.
        level.clear();
        for (const std::size_t child : children) level.push_back(pidOf(records[child]));
        result.insert(result.end(), level.begin(), level.end());
    }
    return result;
}

Targets ZBProcess::removeIdleExitCleanProcessesFrom(Targets targets) {
    std::erase_if(targets, [](const auto& target) {
        return target->idleExitStatus() == ZBIdleExitStatus::kIdleExitClean;
    });
    return targets;
}

}  // namespace zorbel
