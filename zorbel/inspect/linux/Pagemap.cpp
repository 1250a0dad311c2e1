#include "inspect/linux/Pagemap.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "inspect/platform/Records.h"

namespace zorbel {

namespace {

// Of an entry, as the kernel's admin-guide/mm/pagemap documents it.
constexpr std::uint64_t kPresent = 1ULL << 63;
constexpr std::uint64_t kSwapped = 1ULL << 62;
constexpr std::uint64_t kFileOrShared = 1ULL << 61;
constexpr std::uint64_t kExclusive = 1ULL << 56;

/// Entries that are read at once: 2 MiB of memory on small pages.
constexpr std::uint64_t kMostEntries = 512;

/// Arguments and results of the PAGEMAP_SCAN call, from Linux 6.7 on.
struct PageRange {
    std::uint64_t start;
    std::uint64_t end;
    std::uint64_t categories;
};
struct ScanArguments {
    std::uint64_t size;
    std::uint64_t flags;
    std::uint64_t start;
    std::uint64_t end;
    std::uint64_t walkEnd;
    std::uint64_t ranges;
    std::uint64_t rangeCount;
    std::uint64_t mostPages;
    std::uint64_t invertedCategories;
    std::uint64_t wantedCategories;
    std::uint64_t anyOfCategories;
    std::uint64_t returnedCategories;
};
constexpr unsigned long kScan = _IOWR('f', 16, ScanArguments);
constexpr std::uint64_t kIsZeroPage = 1U << 5;

std::uint64_t pageSize() {
    static const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return kPageSize;
}

/// A file's page that the process has not copied is dirty only where it has no storage behind it.
std::int32_t dispositionOf(std::uint64_t entry, bool isExternal) {
    if ((entry & kPresent) == 0) return (entry & kSwapped) != 0 ? kPageQueryPagedOut : 0;
    const bool isOfFile = isExternal && (entry & kFileOrShared) != 0;
    return kPageQueryPresent | (isOfFile ? kPageQueryExternal : kPageQueryDirty);
}

/// Whether the page may be one that shows only zeros: it is no file's and not the process's alone.
bool mayBeZeroPage(std::uint64_t entry) {
    return (entry & (kPresent | kFileOrShared | kExclusive)) == kPresent;
}

}  // namespace

Pagemap::Pagemap(int processDirectory) : _file(openForReading("pagemap", processDirectory)) {}

int Pagemap::read(std::uint64_t address, std::uint64_t pages, bool isExternal, std::int32_t* dispositions) {
    while (pages > 0) {
        const std::uint64_t some = std::min(pages, kMostEntries);
        if (const int error = _readSome(address, some, isExternal, dispositions); error != 0) return error;
        address += some * pageSize();
        dispositions += some;
        pages -= some;
    }
    return 0;
}

int Pagemap::_readSome(std::uint64_t address, std::uint64_t pages, bool isExternal,
                       std::int32_t* dispositions) {
    std::array<std::uint64_t, kMostEntries> entries;
    const std::uint64_t size = pages * sizeof entries[0];
    const ssize_t count = pread(_file.get(), entries.data(), size,
                                static_cast<off_t>(address / pageSize() * sizeof entries[0]));
    if (count < 0) return errno;
    if (static_cast<std::uint64_t>(count) != size) return ESRCH;
    bool mayHoldZeroPages = false;
    for (std::uint64_t i = 0; i < pages; ++i) {
        dispositions[i] = dispositionOf(entries[i], isExternal);
        mayHoldZeroPages = mayHoldZeroPages || mayBeZeroPage(entries[i]);
    }
    if (mayHoldZeroPages) _forgetZeroPages(address, pages, dispositions);
    return 0;
}

/// Older kernels can't tell; there such pages count as present.
void Pagemap::_forgetZeroPages(std::uint64_t address, std::uint64_t pages, std::int32_t* dispositions) const {
    std::array<PageRange, kMostEntries> ranges;
    ScanArguments scan{};
    scan.size = sizeof scan;
    scan.start = address;
    scan.end = address + pages * pageSize();
    scan.ranges = reinterpret_cast<std::uint64_t>(ranges.data());
    scan.rangeCount = ranges.size();
    scan.wantedCategories = kIsZeroPage;
    scan.returnedCategories = kIsZeroPage;
    const int count = ioctl(_file.get(), kScan, &scan);
    for (int i = 0; i < count; ++i) {
        const PageRange& range = ranges[static_cast<std::size_t>(i)];
        std::fill(dispositions + (range.start - address) / pageSize(),
                  dispositions + (range.end - address) / pageSize(), 0);
    }
}

}  // namespace zorbel
