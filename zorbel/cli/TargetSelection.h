#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "inspect/ZBProcess.h"

namespace zorbel {

/// An argument that selects targets.
struct TargetArgument {
    enum class Kind {
        kFileOrDescription,  ///< A memory graph if a file has this name, else a description.
        kDescription,        ///< Name or pid of a process.
        kPid,
    };

    Kind kind = Kind::kFileOrDescription;
    std::string text;
    std::int32_t pid = 0;
};

/// A process that the arguments select.
struct SelectedProcess {
    std::optional<std::string> name;  ///< The matching name; nothing if selected by pid, or with descendants.
    std::size_t position = 0;         ///< Of the first argument that selects it.
};

/// The selected live processes by pid. A process is selected once, however often it is named.
using SelectedProcesses = std::map<std::int32_t, SelectedProcess>;

/// Finds the pids that the arguments select; arguments that are files are skipped. Adds all descendants if
/// withDescendants is set. Excluded pids are left out, except for descendants. The tool itself is always left
/// out. A description without a match adds a message to the errors.
SelectedProcesses selectProcesses(Platform& platform, std::span<const TargetArgument> arguments,
                                  const std::set<std::int32_t>& excludedPids, bool withDescendants,
                                  std::vector<std::string>& errors);

/// The pids that these names and pids exclude, and the tool's own. A description without a match is ignored.
std::set<std::int32_t> excludedPids(Platform& platform, const std::vector<std::string>& descriptions);

}  // namespace zorbel
