#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "base/Error.h"

namespace zorbel {

/// A directory with reports on crashed processes. Each report is a text and a JSON document with a common
/// name that starts with the time. Several programs may add reports at the same time.
class ReportDirectory {
  public:
    explicit ReportDirectory(std::string path) : _path(std::move(path)) {}

    /// Creates the directory if it is missing, accessible to its owner only.
    [[nodiscard]] Result<void> make() const;

    /// Path of a report's files without suffix: directory, time (UTC), pid, and the program's name as far as
    /// it can be part of a file name.
    [[nodiscard]] std::string pathFor(std::time_t time, std::int32_t pid, const std::string& program) const;

    /// Removes the oldest reports until at most this many reports and bytes remain, but never the report with
    /// keptPath. Keeps other files, and incomplete files that may still be written to.
    void prune(std::size_t mostReports, std::uint64_t mostBytes, const std::string& keptPath) const;

    /// Suffix of incomplete files.
    static constexpr const char* kPartSuffix = ".part";

  private:
    std::string _path;
};

}  // namespace zorbel
