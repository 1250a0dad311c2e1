#include "linux/pages/PageTables.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>

#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

/// Arguments and results of the PAGEMAP_SCAN call of <linux/fs.h>, from Linux 6.7 on.
struct ScannedRange {
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
constexpr std::uint64_t kIsHuge = 1U << 6;

constexpr std::size_t kRangesOfCall = 512;

}  // namespace

std::uint64_t PageRun::pages() const { return (end - start) / pageSize(); }

PageTables::PageTables(int processDirectory, bool mayScan)
    : _file(openForReading("pagemap", processDirectory)),
      _mayScan(mayScan),
      _turnBegan(std::chrono::steady_clock::now()) {}

bool PageTables::canScan(const SystemRoot& root) {
    const FileDescriptor self = openDirectory((root.proc + "/self").c_str(), AT_FDCWD);
    PageTables own(self.get());
    return own.isOpen() && own._scanRuns(0, pageSize(), [](const PageRun&) {}) == 0;
}

int PageTables::forEachRun(std::uint64_t start, std::uint64_t end,
                           const std::function<void(const PageRun&)>& visit) {
    if (_mayScan) {
        const int error = _scanRuns(start, end, visit);
        if (error != ENOTTY && error != EINVAL) return error;
        _mayScan = false;  // The first call of all has failed: nothing has been visited.
    }
    return _readRuns(start, end, visit);
}

int PageTables::_scanRuns(std::uint64_t start, std::uint64_t end,
                          const std::function<void(const PageRun&)>& visit) {
    std::array<ScannedRange, kRangesOfCall> ranges;
    while (start < end) {
        ScanArguments arguments{};
        arguments.size = sizeof arguments;
        arguments.start = start;
        arguments.end = end;
        arguments.ranges = reinterpret_cast<std::uint64_t>(ranges.data());
        arguments.rangeCount = ranges.size();
        arguments.mostPages = kMostPagesOfCall;
        arguments.anyOfCategories = kIsPresent | kIsSwapped;
        arguments.returnedCategories = kIsPresent | kIsSwapped | kIsOfFile | kIsZeroPage | kIsHuge;
        const int count = ioctl(_file.get(), kScan, &arguments);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        for (const ScannedRange& range : std::span(ranges).first(static_cast<std::size_t>(count))) {
            const auto is = [&](std::uint64_t category) { return (range.categories & category) != 0; };
            if (!is(kIsZeroPage)) visit({range.start, range.end, is(kIsPresent), is(kIsOfFile), is(kIsHuge)});
        }
        if (arguments.walkEnd <= start) return count == 0 ? 0 : EIO;
        start = arguments.walkEnd;
        if (start < end) _giveWay();
    }
    return 0;
}

int PageTables::_readRuns(std::uint64_t start, std::uint64_t end,
                          const std::function<void(const PageRun&)>& visit) {
    PageRun run;
    const auto finish = [&] {
        if (run.end > run.start) visit(run);
        run = {};
    };
    const int error =
        forEachWord(start, end, [&](std::uint64_t address, std::span<const std::uint64_t> words) {
            for (const std::uint64_t bits : words) {
                const PageWord word(bits);
                const PageRun page{address, address + pageSize(), word.isPresent(), word.isFile(), false};
                address = page.end;
                if (!word.isPresent() && !word.isSwapped()) {
                    finish();
                } else if (run.end == page.start && run.isPresent == page.isPresent &&
                           run.isFile == page.isFile) {
                    run.end = page.end;
                } else {
                    finish();
                    run = page;
                }
            }
        });
    finish();
    return error;
}

int PageTables::forEachWord(
    std::uint64_t start, std::uint64_t end,
    const std::function<void(std::uint64_t address, std::span<const std::uint64_t> words)>& visit) {
    // The kernel lets go of the lock at every 2 MiB by itself, which is 512 small pages.
    std::array<std::uint64_t, 4096> words;
    while (start < end) {
        const std::uint64_t wanted = std::min<std::uint64_t>(words.size(), (end - start) / pageSize());
        const auto place = static_cast<off_t>(start / pageSize() * sizeof words[0]);
        const ssize_t size = pread(_file.get(), words.data(), wanted * sizeof words[0], place);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno;
        const auto count = static_cast<std::size_t>(size) / sizeof words[0];
        if (count == 0) return ESRCH;
        visit(start, std::span(words).first(count));
        start += count * pageSize();
        if (start < end) _giveWay();
    }
    return 0;
}

// A sleep, however short, hands the lock to a waiting writer, which sched_yield does not.
void PageTables::_giveWay() {
    const auto now = std::chrono::steady_clock::now();
    if (now - _turnBegan < kLongestTurn) return;
    thread_local const int isPrecise = prctl(PR_SET_TIMERSLACK, 1UL);  // Otherwise it lasts 50 us longer.
    static_cast<void>(isPrecise);
    constexpr timespec kPause = {0, 20'000};
    nanosleep(&kPause, nullptr);
    _turnBegan = std::chrono::steady_clock::now();
}

}  // namespace zorbel
