#include "linux/pages/SharedFiles.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

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

}  // namespace

bool SharedFiles::note(std::uint32_t file, std::uint64_t offset, std::uint64_t size,
                       const std::function<FileDescriptor()>& open) {
    const std::lock_guard lock(_mutex);
    File& noted = _files[file];
    if (!noted.descriptor.isOpen()) noted.descriptor = open();
    if (noted.descriptor.get() >= _mostDescriptors) noted.descriptor = FileDescriptor();
    const Range range = {offset, offset + size};
    if (noted.ranges.empty() || noted.ranges.back() != range) noted.ranges.push_back(range);
    return noted.descriptor.isOpen();
}

std::optional<FilePages> SharedFiles::_ask(File& file, Range range) {
    const auto [entry, isNew] = file.known.try_emplace(range);
    if (!isNew || !file.descriptor.isOpen()) return entry->second;
    CachestatRange asked = {range.first, range.second - range.first};
    Cachestat answer{};
    // What a file without storage has evicted is in swap, all of it.
    if (syscall(kCachestatCall, file.descriptor.get(), &asked, &answer, 0) == 0)
        entry->second = FilePages{answer.cached, answer.dirty + answer.inWriteback, answer.evicted};
    return entry->second;
}

std::optional<FilePages> SharedFiles::pagesIn(std::uint32_t file, std::uint64_t offset, std::uint64_t size) {
    const auto noted = _files.find(file);
    if (noted == _files.end()) return std::nullopt;
    return _ask(noted->second, {offset, offset + size});
}

std::optional<FilePages> SharedFiles::pagesOf(std::uint32_t file) {
    const auto noted = _files.find(file);
    if (noted == _files.end()) return std::nullopt;
    File& known = noted->second;
    if (known.total) return *known.total;
    std::sort(known.ranges.begin(), known.ranges.end());
    FilePages total;
    bool isKnown = true;
    for (std::size_t i = 0; i < known.ranges.size();) {
        Range merged = known.ranges[i];
        for (++i; i < known.ranges.size() && known.ranges[i].first <= merged.second; ++i)
            merged.second = std::max(merged.second, known.ranges[i].second);
        const auto pages = _ask(known, merged);
        isKnown = isKnown && pages.has_value();
        if (pages) total += *pages;
    }
    known.total = isKnown ? std::optional(total) : std::nullopt;
    return *known.total;
}

}  // namespace zorbel
