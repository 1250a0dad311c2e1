#pragma once

#include <cstdint>

#include "base/Files.h"

namespace zorbel {

/// Pages of a stretch of memory.
struct PageCounts {
    std::uint32_t resident = 0;
    std::uint32_t own = 0;  ///< Resident, and dirty by the rule of page queries.
    std::uint32_t swapped = 0;

    void add(std::int32_t disposition, std::uint32_t pages);
};

/// Where the pages of a process are, page by page, from /proc/PID/pagemap.
class Pagemap {
  public:
    /// Of the process whose /proc directory is given.
    explicit Pagemap(int processDirectory);

    /// False when it may not be read.
    [[nodiscard]] bool isOpen() const { return _file.isOpen(); }

    /// Reads the dispositions (kPageQuery bits) of consecutive pages into the given room for them; the
    /// address is that of a page's start. Pages of files are external where the caller says so. A page that
    /// only shows the kernel's page of zeros is not the process's. Pages of shared memory that are in swap
    /// can't be told from pages that were never there. Returns an errno or 0; no entry at all, as for a
    /// process that has exited, is ESRCH.
    int read(std::uint64_t address, std::uint64_t pages, bool isExternal, std::int32_t* dispositions);

    /// Counts pages between two addresses, in a time that depends on how many there are and not on how far
    /// the addresses lie apart. Kernels that can't do that are asked for so many pages only in the life of
    /// this object; none behind those are counted.
    PageCounts count(std::uint64_t start, std::uint64_t end, bool isExternal);

  private:
    int _readSome(std::uint64_t address, std::uint64_t pages, bool isExternal, std::int32_t* dispositions);
    void _countPageByPage(std::uint64_t start, std::uint64_t end, bool isExternal, PageCounts& counts);
    void _forgetZeroPages(std::uint64_t address, std::uint64_t pages, std::int32_t* dispositions) const;

    FileDescriptor _file;
    std::uint64_t _pagesLeft = 1 << 22;  ///< For counting page by page: 32 MiB of entries.
};

}  // namespace zorbel
