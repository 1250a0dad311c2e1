#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zorbel {

/// An open file descriptor, closed with the object.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fd = -1) : _fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(_fd, other._fd);
        return *this;
    }
    ~FileDescriptor();

    [[nodiscard]] int get() const { return _fd; }
    [[nodiscard]] bool isOpen() const { return _fd >= 0; }

  private:
    int _fd;
};

/// Opens a file for reading, relative to a directory where one is given. On failure errno tells why.
FileDescriptor openForReading(const char* path, int directory);

/// Reads as read() does, through interruptions.
std::ptrdiff_t readSome(int fd, char* buffer, std::size_t size);

/// The whole of a file; nothing on failure, for which errno tells why.
std::optional<std::string> readWholeFile(const char* path, int directory);

/// The target of a symbolic link; nothing on failure, for which errno tells why.
std::optional<std::string> readLink(const char* path, int directory);

/// Calls with the directory of each thread of a process, relative to the process's, until that returns true;
/// whether it has.
bool anyThread(int processDirectory, const std::function<bool(const std::string& directory)>& visit);

/// Reads an unsigned number and moves behind it; nothing when there is no digit. Fields behind single blanks
/// are what the files under /proc are made of.
std::optional<unsigned long long> takeNumber(std::string_view& text, int base = 10);

/// The number right behind the first such label of a text, blanks aside; nothing when there is none.
std::optional<unsigned long long> numberBehind(std::string_view text, std::string_view label);

}  // namespace zorbel
