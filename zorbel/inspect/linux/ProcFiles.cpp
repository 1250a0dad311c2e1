#include "inspect/linux/ProcFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "model/Utf8.h"

namespace zorbel {

namespace {

/// Whether a terminal may act on the character: the ASCII controls, and U+0080 to U+009F, which some
/// terminals take for escape sequences.
bool isControl(std::string_view character) {
    const auto lead = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return lead < 0x20 || lead == 0x7F;
    return lead == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

std::string escaped(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        std::array<char, 5> digits{};
        std::snprintf(digits.data(), digits.size(), "\\x%02X",
                      static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += digits.data();
    }
    return text;
}

}  // namespace

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

std::string printable(std::string_view text, std::size_t mostBytes) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        const bool isHarmless = length > 0 && !isControl(character);
        if (result.size() + (isHarmless ? length : 4 * character.size()) > mostBytes) break;
        if (isHarmless)
            result += character;
        else
            result += escaped(character);
        text.remove_prefix(character.size());
    }
    return result;
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
