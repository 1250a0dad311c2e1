#include "linux/pages/Pagemap.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "linux/process/PageSize.h"
#include "platform/Records.h"

namespace zorbel {

namespace {

// Bits of an entry; see admin-guide/mm/pagemap in the kernel's documentation.
constexpr std::uint64_t kPresent = 1ULL << 63;
constexpr std::uint64_t kSwapped = 1ULL << 62;
constexpr std::uint64_t kFileOrShared = 1ULL << 61;
constexpr std::uint64_t kExclusive = 1ULL << 56;

/// Entries to read at once: 2 MiB of memory with 4 KiB pages.
constexpr std::uint64_t kMostEntries = 512;

/// Arguments and results of PAGEMAP_SCAN, since Linux 6.7.
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
constexpr std::uint64_t kIsOfFile = 1U << 2;
constexpr std::uint64_t kIsPresent = 1U << 3;
constexpr std::uint64_t kIsSwapped = 1U << 4;
constexpr std::uint64_t kIsZeroPage = 1U << 5;

/// Finds ranges of pages with any of the anyOf categories; each range has its categories among told. Moves
/// start to the end of what was scanned. Returns the number of ranges, or -1.
template <std::size_t size>
int scan(int pagemap, std::uint64_t& start, std::uint64_t end, std::uint64_t anyOf, std::uint64_t told,
         std::array<PageRange, size>& ranges) {
    ScanArguments arguments{};
    arguments.size = sizeof arguments;
    arguments.start = start;
    arguments.end = end;
    arguments.ranges = reinterpret_cast<std::uint64_t>(ranges.data());
    arguments.rangeCount = ranges.size();
    arguments.anyOfCategories = anyOf;
    arguments.returnedCategories = told;
    const int count = ioctl(pagemap, kScan, &arguments);
    start = arguments.walkEnd;
    return count;
}

/// A page of a file, not copied by the process, is dirty only if the file has no storage.
std::int32_t dispositionOf(bool isPresent, bool isSwapped, bool isExternal) {
    if (!isPresent) return isSwapped ? kPageQueryPagedOut : 0;
    return kPageQueryPresent | (isExternal ? kPageQueryExternal : kPageQueryDirty);
}

/// Whether this may be the kernel's page of zeros: it belongs to no file and is mapped more than once.
bool mayBeZeroPage(std::uint64_t entry) {
    return (entry & (kPresent | kFileOrShared | kExclusive)) == kPresent;
}

}  // namespace

void PageCounts::add(std::int32_t disposition, std::uint32_t pages) {
    if ((disposition & kPageQueryPresent) != 0) resident += pages;
    if ((disposition & kPageQueryDirty) != 0) own += pages;
    if ((disposition & kPageQueryPagedOut) != 0) swapped += pages;
}

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
        dispositions[i] = dispositionOf((entries[i] & kPresent) != 0, (entries[i] & kSwapped) != 0,
                                        isExternal && (entries[i] & kFileOrShared) != 0);
        mayHoldZeroPages = mayHoldZeroPages || mayBeZeroPage(entries[i]);
    }
    if (mayHoldZeroPages) _forgetZeroPages(address, pages, dispositions);
    return 0;
}

/// Kernels before 6.7 can't find such pages, so there they count as present.
void Pagemap::_forgetZeroPages(std::uint64_t address, std::uint64_t pages, std::int32_t* dispositions) const {
    std::array<PageRange, kMostEntries> ranges;
    std::uint64_t next = address;
    const int count = scan(_file.get(), next, address + pages * pageSize(), kIsZeroPage, kIsZeroPage, ranges);
    for (int i = 0; i < count; ++i) {
        const PageRange& range = ranges[static_cast<std::size_t>(i)];
        std::fill(dispositions + (range.start - address) / pageSize(),
                  dispositions + (range.end - address) / pageSize(), 0);
    }
}

PageCounts Pagemap::count(std::uint64_t start, std::uint64_t end, bool isExternal) {
    constexpr std::uint64_t kWanted = kIsPresent | kIsSwapped;
    PageCounts counts;
    std::array<PageRange, kMostEntries> ranges;
    while (start < end) {
        const std::uint64_t before = start;
        const int found = scan(_file.get(), start, end, kWanted, kWanted | kIsOfFile | kIsZeroPage, ranges);
        if (found < 0) {
            _countPageByPage(before, end, isExternal, counts);
            break;
        }
        for (const PageRange& range : std::span(ranges).first(static_cast<std::size_t>(found))) {
            if ((range.categories & kIsZeroPage) != 0) continue;
            const std::int32_t disposition =
                dispositionOf((range.categories & kIsPresent) != 0, (range.categories & kIsSwapped) != 0,
                              isExternal && (range.categories & kIsOfFile) != 0);
            counts.add(disposition, static_cast<std::uint32_t>((range.end - range.start) / pageSize()));
        }
        if (start <= before) break;
    }
    return counts;
}

void Pagemap::_countPageByPage(std::uint64_t start, std::uint64_t end, bool isExternal, PageCounts& counts) {
    std::array<std::int32_t, kMostEntries> dispositions;
    while (start < end && _pagesLeft > 0) {
        const std::uint64_t pages = std::min({kMostEntries, (end - start) / pageSize(), _pagesLeft});
        if (read(start, pages, isExternal, dispositions.data()) != 0) return;
        for (const std::int32_t disposition : std::span(dispositions).first(pages))
            counts.add(disposition, 1);
        start += pages * pageSize();
        _pagesLeft -= pages;
    }
}

}  // namespace zorbel
