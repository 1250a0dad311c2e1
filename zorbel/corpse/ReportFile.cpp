#include "corpse/ReportFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "corpse/ReportDirectory.h"

namespace zorbel {

ReportFile::ReportFile(std::string path)
    : _path(std::move(path)), _part(_path + ReportDirectory::kPartSuffix) {}

ReportFile::~ReportFile() {
    if (_file.isOpen()) unlink(_part.c_str());
}

Result<void> ReportFile::open() {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    _file = FileDescriptor(::open(_part.c_str(), kFlags, S_IRUSR | S_IWUSR));
    int ends[2];
    if (!_file.isOpen() || pipe2(ends, O_CLOEXEC) != 0) return Error::last().on(_part);
    _source = FileDescriptor(ends[0]);
    _sink = FileDescriptor(ends[1]);
    return {};
}

Result<void> ReportFile::append(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(_file.get(), text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return Error::last().on(_part);
        _size += static_cast<std::uint64_t>(count);
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return {};
}

Result<void> ReportFile::publish() {
    if (std::rename(_part.c_str(), _path.c_str()) != 0) return Error::last().on(_path);
    _part = _path;
    return {};
}

Result<void> fillFromPipes(ReportFile& text, ReportFile& document,
                           std::chrono::steady_clock::time_point deadline, std::uint64_t mostBytes) {
    std::vector<char> piece(1 << 16);
    for (;;) {
        pollfd sources[] = {{text.source(), POLLIN, 0}, {document.source(), POLLIN, 0}};
        if (sources[0].fd < 0 && sources[1].fd < 0) return {};
        const int ready = poll(sources, 2, millisecondsUntil(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return Error::last().on("poll");
        if (ready == 0) return Error{"", 0, "the report takes too long"};
        for (ReportFile* file : {&text, &document}) {
            if (sources[file == &text ? 0 : 1].revents == 0) continue;
            const std::ptrdiff_t count = readSome(file->source(), piece.data(), piece.size());
            if (count <= 0) {
                file->closeSource();
                continue;
            }
            auto appended = file->append({piece.data(), static_cast<std::size_t>(count)});
            if (!appended) return appended;
        }
        if (text.size() + document.size() > mostBytes)
            return Error{"", 0, "the report is larger than a tenth of --keepMiB"};
    }
}

int millisecondsUntil(std::chrono::steady_clock::time_point time) {
    const auto left = time - std::chrono::steady_clock::now();
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::clamp<std::int64_t>(milliseconds, 0, INT32_MAX));
}

}  // namespace zorbel
