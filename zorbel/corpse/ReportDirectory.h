#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "base/Error.h"

namespace zorbel {

/// A directory with reports on processes that have died: for each a text and a JSON document, whose common
/// name begins with the time. Several programs may add reports at once.
class ReportDirectory {
  public:
    explicit ReportDirectory(std::string path) : _path(std::move(path)) {}

    /// Makes the directory, for its owner only, where it is missing.
    [[nodiscard]] Result<void> make() const;

    /// What the files of a report have in common: directory, time (UTC), pid, and as much of the program's
    /// name as is fit for a file.
    [[nodiscard]] std::string pathFor(std::time_t time, std::int32_t pid, const std::string& program) const;

    /// Removes the oldest reports until there are at most so many, and at most so many bytes of them, but
    /// never the one with that path. Other files stay, and so do parts of reports that may still be written
    /// to.
    void prune(std::size_t mostReports, std::uint64_t mostBytes, const std::string& keptPath) const;

    /// What the name of a file ends with that is not complete.
    static constexpr const char* kPartSuffix = ".part";

  private:
    std::string _path;
};

}  // namespace zorbel
