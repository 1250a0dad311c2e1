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

/// An argument that names targets.
struct TargetArgument {
    enum class Kind {
        kFileOrDescription,  ///< A memory graph, where there is a file of that name; otherwise as the next.
        kDescription,        ///< Name or number of a process.
        kPid,
    };

    Kind kind = Kind::kFileOrDescription;
    std::string text;
    std::int32_t pid = 0;
};

/// A process that arguments have selected.
struct SelectedProcess {
    std::optional<std::string> name;  ///< By which it was selected; nothing where that was a number.
    std::size_t position = 0;         ///< Of the first such argument on the command line.
};

/// The selected live processes by their pids. A pid means one process, however often it is named.
using SelectedProcesses = std::map<std::int32_t, SelectedProcess>;

/// Resolves arguments to pids; files are passed over. With their descendants, where that is asked for, which
/// are known by number only. Neither an excluded pid nor the tool itself is selected; a descendant may be
/// excluded and is selected all the same. What matches nothing adds a text to the errors.
SelectedProcesses selectProcesses(Platform& platform, std::span<const TargetArgument> arguments,
                                  const std::set<std::int32_t>& excludedPids, bool withDescendants,
                                  std::vector<std::string>& errors);

/// The pids that names and numbers exclude; those that match nothing don't matter.
std::set<std::int32_t> excludedPids(Platform& platform, const std::vector<std::string>& descriptions);

}  // namespace zorbel
