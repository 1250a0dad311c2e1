#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "base/Error.h"

namespace zorbel {

/// An open file descriptor. The destructor closes it.
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
    /// Returns the descriptor without closing it.
    int release() { return std::exchange(_fd, -1); }

  private:
    int _fd;
};

// Paths are relative to a directory descriptor, or to the current directory for AT_FDCWD.

/// Opens a file for reading. On failure, the descriptor is not open and errno is set.
FileDescriptor openForReading(const char* path, int directory);

/// Opens a directory. On failure, the descriptor is not open and errno is set.
FileDescriptor openDirectory(const char* path, int directory);

/// Like read(), but continues after EINTR.
std::ptrdiff_t readSome(int fd, char* buffer, std::size_t size);

/// The contents of a file, or the errno.
Result<std::string> readWholeFile(const char* path, int directory);

/// The target of a symbolic link, or the errno.
Result<std::string> readLink(const char* path, int directory);

}  // namespace zorbel
