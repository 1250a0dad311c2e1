#include "inspect/linux/ProcFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <memory>

namespace zorbel {

FileDescriptor::~FileDescriptor() {
    if (_fd >= 0) close(_fd);
}

FileDescriptor openForReading(const char* path, int directory) {
    return FileDescriptor(openat(directory, path, O_RDONLY | O_CLOEXEC));
}

std::ptrdiff_t readSome(int fd, char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t count = read(fd, buffer, size);
        if (count >= 0 || errno != EINTR) return count;
    }
}

std::optional<std::string> readWholeFile(const char* path, int directory) {
    const FileDescriptor file = openForReading(path, directory);
    if (!file.isOpen()) return std::nullopt;
    std::string text;
    std::array<char, 4096> buffer;
    for (;;) {
        const std::ptrdiff_t count = readSome(file.get(), buffer.data(), buffer.size());
        if (count < 0) return std::nullopt;
        if (count == 0) return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

std::optional<std::string> readLink(const char* path, int directory) {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length = readlinkat(directory, path, buffer.data(), buffer.size());
    if (length < 0) return std::nullopt;
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

bool anyThread(int processDirectory, const std::function<bool(const std::string& directory)>& visit) {
    const int threads = openat(processDirectory, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (threads < 0) return false;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(threads), &closedir);
    while (const dirent* thread = directory ? readdir(directory.get()) : nullptr)
        if (thread->d_name[0] != '.' && visit(std::string("task/") + thread->d_name)) return true;
    return false;
}

std::optional<unsigned long long> takeNumber(std::string_view& text, int base) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

std::optional<unsigned long long> numberBehind(std::string_view text, std::string_view label) {
    const std::size_t found = text.find(label);
    if (found == std::string_view::npos) return std::nullopt;
    text.remove_prefix(found + label.size());
    return takeNumber(text);
}

}  // namespace zorbel
