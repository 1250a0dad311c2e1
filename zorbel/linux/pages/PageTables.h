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
    bool isFile = false;     ///< A page of a file or of shared memory, and not a private copy of one.
    bool isHuge = false;     ///< Mapped as huge pages.

    [[nodiscard]] std::uint64_t pages() const;
};

/// What one page table entry says: a word of /proc/PID/pagemap, as the kernel's admin-guide/mm/pagemap
/// documents it.
class PageWord {
  public:
    explicit PageWord(std::uint64_t word) : _word(word) {}

    [[nodiscard]] bool isPresent() const { return (_word >> 63 & 1) != 0; }
    [[nodiscard]] bool isSwapped() const { return (_word >> 62 & 1) != 0; }
    [[nodiscard]] bool isFile() const { return (_word >> 61 & 1) != 0; }
    /// Whether nobody else maps the page. That it is not exclusive proves nothing: for large folios it is an
    /// estimate.
    [[nodiscard]] bool isExclusive() const { return (_word >> 56 & 1) != 0; }
    /// Number of the frame of a present page; 0 without the right to see it.
    [[nodiscard]] std::uint64_t frame() const { return _word & kPlace; }
    /// Identifies the slot of a page in swap; 0 without the right to see it.
    [[nodiscard]] std::uint64_t slot() const {
        constexpr unsigned kTypeBits = 5;
        const std::uint64_t place = _word & kPlace;
        const std::uint64_t area = place & ((1U << kTypeBits) - 1);
        return place >> kTypeBits | area << 32;
    }

  private:
    static constexpr std::uint64_t kPlace = (std::uint64_t{1} << 55) - 1;

    std::uint64_t _word;
};

/// The page tables of a process.
///
/// The kernel holds the lock of an address space while it looks at its page tables, and whatever maps or
/// unmaps memory there waits. So no call here looks at more than kMostPagesOfCall pages, and after
/// kLongestTurn of such calls one after another a pause lets those in who wait: a reader who comes back at
/// once would be let in before them.
class PageTables {
  public:
    /// Of the process whose /proc directory is given. Without the scan, as on kernels before 6.7, every page
    /// of a region has to be looked at.
    explicit PageTables(int processDirectory, bool mayScan = true);

    /// Whether the kernel can scan page tables, tried on our own.
    static bool canScan(const SystemRoot& root = {});

    /// False when they may not be read.
    [[nodiscard]] bool isOpen() const { return _file.isOpen(); }

    /// Calls with the pages between two addresses that are resident or in swap, in ascending order. Pages
    /// that only show the kernel's page of zeros are left out. Runs may reach from one region into the next.
    /// 0, or an errno; ESRCH when the address space has gone.
    int forEachRun(std::uint64_t start, std::uint64_t end, const std::function<void(const PageRun&)>& visit);

    /// Calls with the words of pages, in pieces, each with the address of its first page. 0 or an errno as
    /// above.
    int forEachWord(
        std::uint64_t start, std::uint64_t end,
        const std::function<void(std::uint64_t address, std::span<const std::uint64_t> words)>& visit);

    /// 1 GiB of memory on small pages is 0.3 ms of work.
    static constexpr std::uint64_t kMostPagesOfCall = 8192;
    static constexpr std::chrono::microseconds kLongestTurn{200};

  private:
    int _scanRuns(std::uint64_t start, std::uint64_t end, const std::function<void(const PageRun&)>& visit);
    int _readRuns(std::uint64_t start, std::uint64_t end, const std::function<void(const PageRun&)>& visit);
    void _giveWay();

    FileDescriptor _file;
    bool _mayScan;
    std::chrono::steady_clock::time_point _turnBegan;
};

}  // namespace zorbel
