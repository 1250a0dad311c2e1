#include "base/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

namespace zorbel {

FileDescriptor::~FileDescriptor() {
    if (_fd >= 0) close(_fd);
}

FileDescriptor openForReading(const char* path, int directory) {
    return FileDescriptor(openat(directory, path, O_RDONLY | O_CLOEXEC));
}

FileDescriptor openDirectory(const char* path, int directory) {
    return FileDescriptor(openat(directory, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::ptrdiff_t readSome(int fd, char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t count = read(fd, buffer, size);
        if (count >= 0 || errno != EINTR) return count;
    }
}

Result<std::string> readWholeFile(const char* path, int directory) {
    const FileDescriptor file = openForReading(path, directory);
    if (!file.isOpen()) return Error::last();
    std::string text;
    std::array<char, 4096> buffer;
    for (;;) {
        const std::ptrdiff_t count = readSome(file.get(), buffer.data(), buffer.size());
        if (count < 0) return Error::last();
        if (count == 0) return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

Result<std::string> readLink(const char* path, int directory) {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length = readlinkat(directory, path, buffer.data(), buffer.size());
    if (length < 0) return Error::last();
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

}  // namespace zorbel
