#pragma once

#include <cstdint>

#include "base/Files.h"

namespace zorbel {

/// Counts of pages in a range.
struct PageCounts {
    std::uint32_t resident = 0;
    std::uint32_t own = 0;  ///< Resident and dirty (kPageQueryDirty).
    std::uint32_t swapped = 0;

    void add(std::int32_t disposition, std::uint32_t pages);
};

/// The state of each page of a process, from /proc/PID/pagemap.
class Pagemap {
  public:
    /// Opens it, given the /proc directory of the process.
    explicit Pagemap(int processDirectory);

    /// False if it could not be opened.
    [[nodiscard]] bool isOpen() const { return _file.isOpen(); }

    /// Writes the dispositions (kPageQuery bits) of consecutive pages. The address must be the start of a
    /// page. isExternal says that pages of files are external. The kernel's page of zeros counts as no page.
    /// Pages of shared memory in swap look like pages that were never touched. Returns 0 or an errno: ESRCH
    /// if there are no entries, as for a process that has exited.
    int read(std::uint64_t address, std::uint64_t pages, bool isExternal, std::int32_t* dispositions);

    /// Counts the pages between two addresses, in time proportional to the pages present, not to the range.
    /// Kernels before 6.7 need page-by-page reading: this object then reads a limited number of pages and
    /// counts none after those.
    PageCounts count(std::uint64_t start, std::uint64_t end, bool isExternal);

  private:
    int _readSome(std::uint64_t address, std::uint64_t pages, bool isExternal, std::int32_t* dispositions);
    void _countPageByPage(std::uint64_t start, std::uint64_t end, bool isExternal, PageCounts& counts);
    void _forgetZeroPages(std::uint64_t address, std::uint64_t pages, std::int32_t* dispositions) const;

    FileDescriptor _file;
    std::uint64_t _pagesLeft = 1 << 22;  ///< Limit for reading page by page: 32 MiB of entries.
};

}  // namespace zorbel
