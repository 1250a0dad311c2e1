#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>

#include "base/Files.h"
#include "linux/process/SystemRoot.h"

namespace zorbel {

/// Consecutive pages that are alike.
struct PageRun {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    bool isPresent = false;  ///< Otherwise in swap.
    /// A page of a file or of shared memory, and not a private copy of one. Always false where that is not
    /// asked for.
    bool isFile = false;
    bool isHuge = false;  ///< Mapped as huge pages.

    [[nodiscard]] std::uint64_t pages() const;
};

/// What one page table entry says: a word of /proc/PID/pagemap, as the kernel's admin-guide/mm/pagemap
/// documents it.
class PageWord {
  public:
    explicit PageWord(std::uint64_t word) : _word(word) {}

    [[nodiscard]] bool isPresent() const { return (_word >> 63 & 1) != 0; }
    /// Whether the page is in swap. The kernel has entries of its own that look like that: marks, such as
    /// those of guards within a mapping, and pages that it is moving or has lost. Guards show without the
    /// right to see places, from Linux 6.15 on, the others by their place only.
    [[nodiscard]] bool isSwapped() const {
        return (_word >> 62 & 1) != 0 && !isGuard() && _area() < kMostAreas;
    }
    /// Whether the page was made a guard within a mapping (MADV_GUARD_INSTALL); shown from Linux 6.15 on.
    [[nodiscard]] bool isGuard() const { return (_word >> 58 & 1) != 0; }
    [[nodiscard]] bool isFile() const { return (_word >> 61 & 1) != 0; }
    /// Whether nobody else maps the page. That it is not exclusive proves nothing: for large folios it is an
    /// estimate. Nor does the opposite where the page is part of a huge one: the kernel then looks at the
    /// first page only, and others of it may be mapped elsewhere.
    [[nodiscard]] bool isExclusive() const { return (_word >> 56 & 1) != 0; }
    /// Number of the frame of a present page; 0 without the right to see it.
    [[nodiscard]] std::uint64_t frame() const { return _word & kPlace; }
    /// Identifies the slot of a page in swap; 0 without the right to see it. A number below 2^36: an area,
    /// and the place in it, below 2^31, which is 8 TiB of small pages. Places beyond that get the number of
    /// another one.
    [[nodiscard]] std::uint64_t slot() const {
        return (frame() >> kAreaBits & kMostPlaces) | _area() << kPlaceBitsOfSlot;
    }
    static constexpr unsigned kPlaceBitsOfSlot = 31;

  private:
    static constexpr std::uint64_t kPlace = (std::uint64_t{1} << 55) - 1;
    static constexpr unsigned kAreaBits = 5;
    static constexpr std::uint64_t kMostPlaces = (std::uint64_t{1} << kPlaceBitsOfSlot) - 1;
    /// Of swap. Higher numbers are entries of the kernel's own.
    static constexpr std::uint64_t kMostAreas = 23;

    [[nodiscard]] std::uint64_t _area() const { return _word & ((1U << kAreaBits) - 1); }

    std::uint64_t _word;
};

/// What the kernel lets us see of page tables.
struct PageAccess {
    bool mayScan = false;  ///< PAGEMAP_SCAN, from Linux 6.7 on. Otherwise every page has to be looked at.
    /// The frame of the kernel's page of zeros; 0 without the right to see frames, CAP_SYS_ADMIN.
    std::uint64_t zeroFrame = 0;
    /// Whether the kernel knows exactly how many anonymous pages a process has; from Linux 6.16 on. Before,
    /// its counters lag behind by some dozens.
    bool countsExactly = false;
    /// Whether the pages of a file can be counted in the file: with cachestat, from Linux 6.5 on, and the
    /// right to open what others have mapped, CAP_CHECKPOINT_RESTORE. Otherwise only what processes have
    /// touched is known.
    bool countsFiles = false;
    /// What the kernel maps as one huge page, in bytes, a power of two; that of x86 and most others where it
    /// is not known.
    std::uint64_t hugePageSize = std::uint64_t{2} << 20;

    /// Tried on our own page tables.
    static PageAccess find(const SystemRoot& root);

    [[nodiscard]] bool seesFrames() const { return zeroFrame != 0; }
};

/// The page tables of a process.
///
/// The kernel holds the lock of an address space while it looks at its page tables, and whatever maps or
/// unmaps memory there waits. So no call here looks at more than kMostPagesOfCall pages, or a quarter of that
/// where it takes a look at each page itself. Page tables whose
/// pages were all given back are work too, 2 ns a page, and do not show before they are looked at: so a call
/// reaches only as far as kNearReach, and each one that returns at once lets the next reach twice as far, up
/// to kFarReach. A mapping of terabytes without any page tables is then some hundreds of calls. After
/// kLongestTurn of such calls one after another a pause of kPause lets those in who wait: a reader who comes
/// back at once would be let in before them.
class PageTables {
  public:
    /// Of the process whose /proc directory is given.
    PageTables(int processDirectory, const PageAccess& access);

    enum class Detail {
        kWhetherFile,  ///< The kernel looks at each page itself, mostly a cache miss: about 50 ns a page.
        kPlace,        ///< The page tables say it all: about 10 ns a page.
    };

    /// False when they may not be read.
    [[nodiscard]] bool isOpen() const { return _file.isOpen(); }

    /// Calls with the pages between two addresses that are resident or in swap, in ascending order. Pages
    /// that only show the kernel's page of zeros are left out. Runs may reach from one region into the next.
    /// 0, or an errno; ESRCH when the address space has gone.
    int forEachRun(std::uint64_t start, std::uint64_t end, Detail detail,
                   const std::function<void(const PageRun&)>& visit);

    /// Calls with the words of pages, in pieces, each with the address of its first page. 0 or an errno as
    /// above.
    using VisitWords = std::function<void(std::uint64_t address, std::span<const std::uint64_t> words)>;
    int forEachWord(std::uint64_t start, std::uint64_t end, const VisitWords& visit);

    /// Calls with the words of all pages of a region that are resident or in swap, and perhaps of some that
    /// are neither. Of a huge page it is one word, which counts for so many pages as is said with it;
    /// otherwise that is 1. 0 or an errno as above.
    ///
    /// A word costs about 30 ns, and the scan 10 for each page that is there. So a region is scanned, and the
    /// words of what is found are read; but while every page is there, what comes next is read at once. What
    /// may be a huge page, by its frames, is scanned after all: only the scan shows huge pages of zeros.
    using VisitUsedWords = std::function<void(std::uint64_t address, std::span<const std::uint64_t> words,
                                              std::uint32_t pagesOfWord)>;
    int forEachUsedWord(std::uint64_t start, std::uint64_t end, const VisitUsedWords& visit);

    /// Whether the address space still exists. Otherwise its page tables may have shown nothing.
    [[nodiscard]] bool isAlive();

    /// Whether a page may be part of one that is mapped as a huge page, given its number in the address
    /// space: both are at the same place within one.
    [[nodiscard]] bool mayBeOfHugePage(std::uint64_t page, PageWord word) const;

    /// Whether a page only shows the kernel's page of zeros.
    [[nodiscard]] bool isZeroPage(PageWord word) const {
        return word.isPresent() && _access.seesFrames() && word.frame() == _access.zeroFrame;
    }

    static constexpr std::uint64_t kMostPagesOfCall = 8192;
    static constexpr std::uint64_t kNearReach = std::uint64_t{256} << 20;  ///< In bytes.
    static constexpr std::uint64_t kFarReach = std::uint64_t{4} << 30;
    static constexpr std::chrono::microseconds kLongestTurn{200};
    static constexpr std::chrono::microseconds kPause{20};

  private:
    /// One call; says where the next one has to begin.
    int _scan(std::uint64_t& start, std::uint64_t end, Detail detail,
              const std::function<void(const PageRun&)>& visit);
    int _readRuns(std::uint64_t start, std::uint64_t end, const std::function<void(const PageRun&)>& visit);
    int _visitRun(const PageRun& run, const VisitUsedWords& visit);
    /// Calls a visitor, and counts it as a pause if it takes long enough.
    template <typename Visit>
    void _visit(const Visit& visit);
    void _giveWay();

    FileDescriptor _file;
    PageAccess _access;
    bool _wasQuick = false;             ///< Whether the last call returned at once.
    std::uint64_t _reach = kNearReach;  ///< Of the next call, in bytes.
    std::chrono::steady_clock::time_point _turnBegan;
};

}  // namespace zorbel
