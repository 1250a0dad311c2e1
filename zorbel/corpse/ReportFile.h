#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/Files.h"

namespace zorbel {

/// One file of a report, and the pipe that its contents come through. The file has another name until it is
/// complete, and is removed with the object unless it is kept.
class ReportFile {
  public:
    explicit ReportFile(std::string path);
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;
    ~ReportFile();

    /// Creates the file and the pipe. A link that somebody has put there is not followed.
    Result<void> open();

    Result<void> append(std::string_view text);

    [[nodiscard]] int source() const { return _source.get(); }
    [[nodiscard]] int sink() const { return _sink.get(); }
    void closeSource() { _source = FileDescriptor(); }
    void closeSink() { _sink = FileDescriptor(); }
    [[nodiscard]] std::uint64_t size() const { return _size; }

    /// Gives the file its name. It is still removed with the object.
    Result<void> publish();
    /// From now on it stays.
    void keep() { _file = FileDescriptor(); }

  private:
    std::string _path;
    std::string _part;
    FileDescriptor _file;
    FileDescriptor _source;
    FileDescriptor _sink;
    std::uint64_t _size = 0;
};

/// Fills two files from their pipes until both pipes end. An error when that goes wrong, lasts beyond the
/// deadline or gives more bytes than allowed.
Result<void> fillFromPipes(ReportFile& text, ReportFile& document,
                           std::chrono::steady_clock::time_point deadline, std::uint64_t mostBytes);

/// What poll() and its like wait at most for a time to come; 0 once it has passed.
int millisecondsUntil(std::chrono::steady_clock::time_point time);

}  // namespace zorbel
