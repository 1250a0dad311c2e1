#pragma once

#include <cstdint>

#include "base/Name.h"
#include "model/MemoryKinds.h"
#include "platform/Records.h"

namespace zorbel {

/// What zorbel may do with the file that a region maps.
enum class FileUse : std::uint8_t {
    kNone,      ///< No file, or one that can't be a program or library.
    kLookOnly,  ///< Must not be opened: its file system might never answer.
    kMayBeRead,
};

/// Pages of a region, by what its page tables show.
struct RegionPages {
    std::uint32_t anonymous = 0;  ///< Resident, and no file's: also private copies of pages of files.
    std::uint32_t file = 0;       ///< Resident, of a file or of shared memory.
    std::uint32_t swapped = 0;    ///< Private pages in swap.
    std::uint32_t fileSwapped =
        0;  ///< Pages of a file in memory that are in swap; known only where smaps was read.
    std::uint32_t fileDirty = 0;  ///< Of those of a file, dirty ones; known only where smaps was read.
    std::uint32_t lazy = 0;       ///< Of the anonymous ones, free for the system to take back.
};

/// One region of a snapshot.
struct SnapshotRegion {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    RegionInfoRecord record;
    Name path;                 ///< Of the mapped file, printable; absent for anonymous memory.
    std::uint64_t device = 0;  ///< Of the mapped file, as returned by makedev().
    std::uint64_t inode = 0;   ///< Of the mapped file.
    std::uint32_t fileId = 0;  ///< Number of the mapped file in the run; 0 if there is none.
    RegionPages pages;
    /// Resident pages that nobody else maps, of those looked at for the region's lineage.
    std::uint32_t exclusive = 0;
    std::uint32_t member = 0;  ///< In the lineages of the run, plus 1; 0 if nothing had to be noted.
    FileUse fileUse = FileUse::kNone;
    bool isPrivate = false;
    bool isPlainAnonymous = false;  ///< Private, without file or name.
    bool isHuge = false;            ///< In hugetlbfs.
    bool isLocked = false;          ///< By mlock() and its like.
    bool isDevice = false;          ///< Maps memory of a device, which is none of the system's.
    bool isOnlyFile = false;   ///< Private, and taken to have no page of its own while pages are counted.
    bool isUncounted = false;  ///< Its pages are counted when their words are read.
    bool isWritten = false;    ///< Private, and writable now or in the past.

    [[nodiscard]] Tag tag() const { return static_cast<Tag>(record.user_tag); }
    /// Whether the file lives in memory only, so that all of its pages are charged.
    [[nodiscard]] bool isOfMemoryFile() const { return fileId != 0 && record.external_pager == 0 && !isHuge; }
    /// Whether it has pages that are its own and no file's.
    [[nodiscard]] bool hasOwnPages() const { return isPrivate && pages.anonymous + pages.swapped != 0; }
    [[nodiscard]] std::uint64_t size() const { return end - start; }
};

}  // namespace zorbel
