#include "linux/pages/SharedFiles.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

// Of <linux/mman.h>, from Linux 6.5 on.
struct CachestatRange {
    std::uint64_t offset;
    std::uint64_t length;
};
struct Cachestat {
    std::uint64_t cached;
    std::uint64_t dirty;
    std::uint64_t inWriteback;
    std::uint64_t evicted;
    std::uint64_t recentlyEvicted;
};
constexpr long kCachestatCall = 451;

/// So many processes would have to exit before a file is asked.
constexpr std::size_t kEnoughPaths = 16;

std::string pathOf(const SharedFiles::Mapping& mapping) {
    if (mapping.otherFile.isPresent()) return mapping.otherFile.text();
    char path[64];
    std::snprintf(path, sizeof path, "map_files/%llx-%llx", static_cast<unsigned long long>(mapping.start),
                  static_cast<unsigned long long>(mapping.end));
    return path;
}

FileDescriptor openFile(const char* path, int directory) {
    return FileDescriptor(openat(directory, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

/// Where the mapping's file can be opened without the descriptor of its process's directory.
std::string lastingPathOf(const SharedFiles::Mapping& mapping) {
    if (mapping.otherFile.isPresent()) return mapping.otherFile.text();
    const std::string link = "/proc/self/fd/" + std::to_string(mapping.processDirectory);
    const auto directory = readLink(link.c_str(), AT_FDCWD);
    return directory ? *directory + '/' + pathOf(mapping) : std::string();
}

}  // namespace

std::optional<FilePages> countPages(int file, std::uint64_t offset, std::uint64_t size) {
    CachestatRange asked = {offset, size};
    Cachestat answer{};
    if (syscall(kCachestatCall, file, &asked, &answer, 0) != 0) return std::nullopt;
    // A page that is changed again while it is written is dirty and in writeback. What a file without storage
    // has evicted is in swap, all of it.
    return FilePages{answer.cached, std::min(answer.dirty + answer.inWriteback, answer.cached),
                     answer.evicted};
}

FileDescriptor SharedFiles::open(const Mapping& mapping) {
    return openFile(pathOf(mapping).c_str(), mapping.processDirectory);
}

// The kernel locks the address space to open a file through its mapping. A process whose lock is taken must
// not keep all workers waiting, so our own is free meanwhile.
bool SharedFiles::note(std::uint32_t file, const Range& range, const std::optional<Mapping>& mapping) {
    {
        const std::lock_guard lock(_mutex);
        File& noted = _files[file];
        noted.isAllSeen = noted.isAllSeen && range.isSeen;
        const bool isKnown = !noted.ranges.empty() && noted.ranges.back().offset == range.offset &&
                             noted.ranges.back().end == range.end;
        if (isKnown)
            noted.ranges.back().swapped = std::max(noted.ranges.back().swapped, range.swapped);
        else
            noted.ranges.push_back(range);
        if (noted.descriptor.isOpen() || noted.paths.size() >= kEnoughPaths || !mapping)
            return _isOpen(noted);
    }
    FileDescriptor opened = open(*mapping);
    std::string path;
    const bool isBeyond = opened.get() >= _mostDescriptors;
    if (isBeyond) path = lastingPathOf(*mapping);
    const std::lock_guard lock(_mutex);
    File& noted = _files[file];
    if (opened.isOpen() && !isBeyond && !noted.descriptor.isOpen()) noted.descriptor = std::move(opened);
    if (!path.empty()) noted.paths.push_back(std::move(path));
    return _isOpen(noted);
}

void SharedFiles::see(std::span<const SeenPages> pages) {
    if (pages.empty()) return;
    const std::lock_guard lock(_mutex);
    for (const SeenPages& seen : pages) _files[seen.file].seen.add(seen.first, seen.end);
}

int SharedFiles::_descriptorOf(const File& file) {
    if (file.descriptor.isOpen() || _reopenedFile == &file)
        return file.descriptor.isOpen() ? file.descriptor.get() : _reopened.get();
    _reopenedFile = &file;
    _reopened = FileDescriptor();
    for (const std::string& path : file.paths) {
        _reopened = openFile(path.c_str(), AT_FDCWD);
        if (_reopened.isOpen()) break;  // Otherwise this process has exited.
    }
    return _reopened.get();
}

std::optional<FilePages> SharedFiles::_ask(File& file, Stretch stretch) {
    const auto [entry, isNew] = file.known.try_emplace(stretch);
    if (!isNew || !_isOpen(file)) return entry->second;
    entry->second = countPages(_descriptorOf(file), stretch.first, stretch.second - stretch.first);
    return entry->second;
}

// Merged ranges are asked for, so that a page in several of them counts once.
std::optional<FilePages> SharedFiles::_askAll(File& file) {
    FilePages total;
    for (std::size_t i = 0; i < file.ranges.size();) {
        Stretch merged = {file.ranges[i].offset, file.ranges[i].end};
        for (++i; i < file.ranges.size() && file.ranges[i].offset <= merged.second; ++i)
            merged.second = std::max(merged.second, file.ranges[i].end);
        const auto pages = _ask(file, merged);
        if (!pages) return std::nullopt;
        total += *pages;
    }
    return total;
}

// Of ranges that overlap, the part that is in no other one before it is taken to have its share.
std::uint64_t SharedFiles::_swappedOf(const File& file) {
    double swapped = 0;
    std::uint64_t covered = 0;
    for (const Range& range : file.ranges) {
        const std::uint64_t start = std::max(range.offset, covered);
        if (start >= range.end) continue;
        swapped += static_cast<double>(range.swapped) * static_cast<double>(range.end - start) /
                   static_cast<double>(range.end - range.offset);
        covered = range.end;
    }
    return static_cast<std::uint64_t>(swapped);
}

std::optional<FilePages> SharedFiles::pagesOf(std::uint32_t number) {
    const auto noted = _files.find(number);
    if (noted == _files.end()) return std::nullopt;
    File& file = noted->second;
    if (file.total) return *file.total;
    // Of equal ranges, the one with the most pages in swap comes first.
    std::ranges::sort(file.ranges, [](const Range& a, const Range& b) {
        return std::tuple(a.offset, b.end, b.swapped) < std::tuple(b.offset, a.end, a.swapped);
    });
    auto total = _askAll(file);
    if (!total && file.isAllSeen) total = FilePages{file.seen.count(), 0, _swappedOf(file)};
    file.total = total;
    return total;
}

std::optional<FilePages> SharedFiles::pagesIn(std::uint32_t number, std::uint64_t offset, std::uint64_t size,
                                              std::uint64_t swapped) {
    const auto noted = _files.find(number);
    if (noted == _files.end()) return std::nullopt;
    File& file = noted->second;
    auto pages = _ask(file, {offset, offset + size});
    if (!pages && file.isAllSeen)
        pages = FilePages{file.seen.countIn(offset / pageSize(), (offset + size) / pageSize()), 0, swapped};
    return pages;
}

}  // namespace zorbel
