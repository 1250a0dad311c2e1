#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/Files.h"

namespace zorbel {

/// One file of a report, and the pipe for its contents. The file has a temporary name until it is published.
/// It is removed with this object unless keep() is called.
class ReportFile {
  public:
    explicit ReportFile(std::string path);
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;
    ~ReportFile();

    /// Creates the file and the pipe. Does not follow an existing symbolic link.
    Result<void> open();

    Result<void> append(std::string_view text);

    [[nodiscard]] int source() const { return _source.get(); }
    [[nodiscard]] int sink() const { return _sink.get(); }
    void closeSource() { _source = FileDescriptor(); }
    void closeSink() { _sink = FileDescriptor(); }
    [[nodiscard]] std::uint64_t size() const { return _size; }

    /// Renames the file to its final name. It is still removed with this object.
    Result<void> publish();
    /// The file is no longer removed.
    void keep() { _file = FileDescriptor(); }

  private:
    std::string _path;
    std::string _part;
    FileDescriptor _file;
    FileDescriptor _source;
    FileDescriptor _sink;
    std::uint64_t _size = 0;
};

/// Writes the contents of two pipes to their files until both pipes end. Fails if a write fails, after the
/// deadline, or if there are more bytes than allowed.
Result<void> fillFromPipes(ReportFile& text, ReportFile& document,
                           std::chrono::steady_clock::time_point deadline, std::uint64_t mostBytes);

/// Timeout for poll() and the like that ends at this time; 0 if it has passed.
int millisecondsUntil(std::chrono::steady_clock::time_point time);

}  // namespace zorbel
