#include "linux/pages/PageTables.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "base/TextCursor.h"
#include "linux/pages/SharedFiles.h"
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

/// Anonymous pages of a process, given its open statm: those that are resident, but no file's.
std::uint64_t anonymousPages(int statm) {
    std::array<char, 256> text;
    const ssize_t size = pread(statm, text.data(), text.size(), 0);
    std::string_view rest(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    std::array<std::uint64_t, 3> fields{};  // All, resident, and those of files.
    for (std::uint64_t& field : fields) field = takeNumber(rest).value_or(0);
    return fields[1] - fields[2];
}

/// How much reading words is worth without a scan: most pages are there, and they are not huge ones.
class Density {
  public:
    void add(std::span<const std::uint64_t> words) {
        _pages += words.size();
        for (const std::uint64_t bits : words) {
            const PageWord word(bits);
            if (word.isPresent() || word.isSwapped()) ++_used;
            // So many frames in sequence are a huge page, or might as well be one.
            _inSequence = word.isPresent() && word.frame() == _lastFrame + 1 ? _inSequence + 1 : 0;
            _lastFrame = word.frame();
            _mostInSequence = std::max(_mostInSequence, _inSequence);
        }
    }
    [[nodiscard]] bool isHigh(std::uint64_t hugePageSize) const {
        return _used * 2 >= _pages && (_mostInSequence + 1) * pageSize() < hugePageSize;
    }

  private:
    std::uint64_t _pages = 0;
    std::uint64_t _used = 0;
    std::uint64_t _lastFrame = 0;
    std::uint64_t _inSequence = 0;
    std::uint64_t _mostInSequence = 0;
};

/// Tried on memory of our own. A new file in memory would be refused under a limit for the size of files.
bool mayCountFiles(int ownDirectory) {
    void* page = mmap(nullptr, pageSize(), PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return false;
    const auto start = reinterpret_cast<std::uint64_t>(page);
    const FileDescriptor opened = SharedFiles::open({ownDirectory, start, start + pageSize()});
    munmap(page, pageSize());
    return opened.isOpen() && countPages(opened.get(), 0, pageSize());
}

}  // namespace

PageAccess PageAccess::find(const SystemRoot& root) {
    const FileDescriptor self = openDirectory((root.proc + "/self").c_str(), AT_FDCWD);
    PageTables own(self.get(), {.mayScan = true});
    PageAccess access;
    const std::string sizeFile = root.sys + "/kernel/mm/transparent_hugepage/hpage_pmd_size";
    if (const auto text = readWholeFile(sizeFile.c_str(), AT_FDCWD)) {
        const std::uint64_t size = std::strtoull(text->c_str(), nullptr, 10);
        if (std::has_single_bit(size) && size >= pageSize()) access.hugePageSize = size;
    }
    access.countsFiles = mayCountFiles(self.get());
    if (!own.isOpen()) return access;
    void* page = mmap(nullptr, pageSize(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return access;
    auto& byte = *static_cast<volatile char*>(page);
    [[maybe_unused]] const char zero = byte;  // A page that is only read is the one of zeros.
    const auto address = reinterpret_cast<std::uint64_t>(page);
    own.forEachWord(address, address + pageSize(),
                    [&](std::uint64_t, auto words) { access.zeroFrame = PageWord(words[0]).frame(); });
    access.mayScan =
        own.forEachRun(address, address + pageSize(), PageTables::Detail::kPlace, [](const PageRun&) {}) == 0;
    const FileDescriptor statm = openForReading("statm", self.get());
    const std::uint64_t pagesBefore = anonymousPages(statm.get());
    byte = 1;
    access.countsExactly = anonymousPages(statm.get()) == pagesBefore + 1;
    munmap(page, pageSize());
    return access;
}

std::uint64_t PageRun::pages() const { return (end - start) / pageSize(); }

PageTables::PageTables(int processDirectory, const PageAccess& access)
    : _file(openForReading("pagemap", processDirectory)),
      _access(access),
      _turnBegan(std::chrono::steady_clock::now()) {}

int PageTables::forEachRun(std::uint64_t start, std::uint64_t end, Detail detail,
                           const std::function<void(const PageRun&)>& visit) {
    if (!_access.mayScan) return _readRuns(start, end, visit);
    while (start < end) {
        if (const int error = _scan(start, end, detail, visit); error != 0) return error;
        if (start < end) _giveWay();
    }
    return 0;
}

int PageTables::_scan(std::uint64_t& start, std::uint64_t end, Detail detail,
                      const std::function<void(const PageRun&)>& visit) {
    std::array<ScannedRange, kRangesOfCall> ranges;
    ScanArguments arguments{};
    arguments.size = sizeof arguments;
    arguments.start = start;
    arguments.end = std::min(end, start + _reach);
    arguments.ranges = reinterpret_cast<std::uint64_t>(ranges.data());
    arguments.rangeCount = ranges.size();
    // Of huge pages a call may find more, as long as all are huge: the first call that meets small ones takes
    // a quarter of a millisecond.
    arguments.mostPages = detail == Detail::kWhetherFile ? kMostPagesOfCall / 4
                          : _wasQuick                    ? kMostPagesOfCall * 3
                                                         : kMostPagesOfCall;
    arguments.anyOfCategories = kIsPresent | kIsSwapped;
    arguments.returnedCategories =
        kIsPresent | kIsSwapped | kIsZeroPage | kIsHuge | (detail == Detail::kWhetherFile ? kIsOfFile : 0);
    const auto began = std::chrono::steady_clock::now();
    int count = ioctl(_file.get(), kScan, &arguments);
    while (count < 0 && errno == EINTR) count = ioctl(_file.get(), kScan, &arguments);
    if (count < 0) return errno;
    constexpr std::chrono::microseconds kAtOnce{20};
    _wasQuick = std::chrono::steady_clock::now() - began < kAtOnce;
    _reach = _wasQuick ? std::min(_reach * 2, kFarReach) : kNearReach;
    _visit([&] {
        for (const ScannedRange& range : std::span(ranges).first(static_cast<std::size_t>(count))) {
            const auto is = [&](std::uint64_t category) { return (range.categories & category) != 0; };
            if (!is(kIsZeroPage)) visit({range.start, range.end, is(kIsPresent), is(kIsOfFile), is(kIsHuge)});
        }
    });
    if (arguments.walkEnd <= start && count != 0) return EIO;
    start = arguments.walkEnd > start ? arguments.walkEnd : arguments.end;
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
                if ((!word.isPresent() && !word.isSwapped()) || isZeroPage(word)) {
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

int PageTables::forEachWord(std::uint64_t start, std::uint64_t end, const VisitWords& visit) {
    // The kernel lets go of the lock at every 2 MiB by itself, which is 512 small pages.
    std::array<std::uint64_t, kMostPagesOfCall> words;
    while (start < end) {
        const std::uint64_t wanted = std::min<std::uint64_t>(words.size(), (end - start) / pageSize());
        const auto place = static_cast<off_t>(start / pageSize() * sizeof words[0]);
        const ssize_t size = pread(_file.get(), words.data(), wanted * sizeof words[0], place);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno;
        const auto count = static_cast<std::size_t>(size) / sizeof words[0];
        if (count == 0) return ESRCH;
        _visit([&] { visit(start, std::span(words).first(count)); });
        start += count * pageSize();
        if (start < end) _giveWay();
    }
    return 0;
}

int PageTables::forEachUsedWord(std::uint64_t start, std::uint64_t end, const VisitUsedWords& visit) {
    const std::uint64_t stretch = kMostPagesOfCall * pageSize();
    // The first scan only finds out what the region is like. Later ones reach as far as a call may, since
    // there may be terabytes without any page.
    std::uint64_t probe = _access.hugePageSize;
    bool isDense = end - start <= probe;
    while (start < end) {
        int error = 0;
        if (!_access.mayScan || (isDense && _access.seesFrames())) {
            Density density;
            const std::uint64_t stop = std::min(end, start + stretch);
            error = forEachWord(start, stop, [&](std::uint64_t address, auto words) {
                density.add(words);
                visit(address, words, 1);
            });
            isDense = density.isHigh(_access.hugePageSize);
            start = stop;
        } else {
            const std::uint64_t began = start;
            const std::uint64_t scanEnd = probe != 0 ? std::min(end, start + probe) : end;
            const std::uint64_t enough = probe != 0 ? probe : stretch;
            isDense = false;
            const int scanError = _scan(start, scanEnd, Detail::kPlace, [&](const PageRun& run) {
                isDense = !run.isHuge && run.end - run.start >= enough && run.start == began;
                if (error == 0) error = _visitRun(run, visit);
            });
            if (scanError != 0) return scanError;
            probe = 0;
        }
        if (error != 0) return error;
        if (start < end) _giveWay();
    }
    return 0;
}

int PageTables::_visitRun(const PageRun& run, const VisitUsedWords& visit) {
    if (!run.isHuge || !run.isPresent)
        return forEachWord(run.start, run.end,
                           [&](std::uint64_t address, auto words) { visit(address, words, 1); });
    for (std::uint64_t start = run.start; start < run.end;) {
        const std::uint64_t end = std::min(run.end, (start | (_access.hugePageSize - 1)) + 1);
        const auto count = static_cast<std::uint32_t>((end - start) / pageSize());
        const int error = forEachWord(start, start + pageSize(), [&](std::uint64_t address, auto words) {
            if (PageWord(words[0]).isPresent()) visit(address, words, count);
        });
        if (error != 0) return error;
        start = end;
    }
    return 0;
}

template <typename Visit>
void PageTables::_visit(const Visit& visit) {
    const auto began = std::chrono::steady_clock::now();
    visit();
    const auto now = std::chrono::steady_clock::now();
    if (now - began >= kPause) _turnBegan = now;
}

bool PageTables::mayBeOfHugePage(std::uint64_t page, PageWord word) const {
    const std::uint64_t pagesOfHuge = _access.hugePageSize / pageSize();
    return ((page ^ word.frame()) & (pagesOfHuge - 1)) == 0;
}

bool PageTables::isAlive() {
    return forEachWord(0, pageSize(), [](std::uint64_t, auto) {}) != ESRCH;
}

// A sleep, however short, hands the lock to a waiting writer, which sched_yield does not.
void PageTables::_giveWay() {
    const auto now = std::chrono::steady_clock::now();
    if (now - _turnBegan < kLongestTurn) return;
    thread_local const int isPrecise = prctl(PR_SET_TIMERSLACK, 1UL);  // Otherwise it lasts 50 us longer.
    static_cast<void>(isPrecise);
    constexpr timespec kLength = {0, std::chrono::nanoseconds(kPause).count()};
    nanosleep(&kLength, nullptr);
    _turnBegan = std::chrono::steady_clock::now();
}

}  // namespace zorbel
