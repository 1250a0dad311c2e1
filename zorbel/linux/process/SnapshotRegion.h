#pragma once

#include <cstdint>
#include <span>

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

/// A file as a process maps it.
struct MappedFile {
    Name path;  ///< Printable.
    /// As fstat() shows it where that differs from maps and could be asked; as returned by makedev().
    std::uint64_t device = 0;
    std::uint64_t inode = 0;   ///< Likewise.
    std::uint32_t number = 0;  ///< Of the file in the run; 0 if nothing shows which file it is.
    bool isLayered = false;    ///< On an overlay: its pages are those of a file in a layer.
    Name layerFile = {};       ///< Absolute path of that file, as far as it was found.
};

/// One region of a snapshot. A run keeps those of all processes until it has walked them, so they are small.
struct SnapshotRegion {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0;          ///< Into the file; the start for memory without one.
    const MappedFile* file = nullptr;  ///< Kept by the snapshot; null for anonymous memory.
    /// Pages that do not count for the region's own object; kept by the snapshot.
    std::span<const SharedPages> shared;
    RegionPages pages;
    /// Resident pages that nobody else maps, of those looked at for the region's lineage.
    std::uint32_t exclusive = 0;
    std::uint32_t member = 0;  ///< In the lineages of the run, plus 1; 0 if nothing had to be noted.
    std::uint32_t objectId = 0;
    Tag tag = Tag::kNone;
    std::uint8_t protection = 0;     ///< A sum of SmapsEntry::kRead and its like.
    std::uint8_t maxProtection = 0;  ///< Likewise.
    FileUse fileUse = FileUse::kNone;
    bool hasStorage : 1 = false;  ///< Maps a file from whose file system clean pages can be read again.
    bool isPrivate : 1 = false;
    bool isPlainAnonymous : 1 = false;  ///< Private, without file or name.
    bool isHuge : 1 = false;            ///< In hugetlbfs.
    bool isLocked : 1 = false;          ///< By mlock() and its like.
    bool isDevice : 1 = false;          ///< Maps memory of a device, which is none of the system's.
    bool isOnlyFile : 1 = false;   ///< Private, and taken to have no page of its own while pages are counted.
    bool isUncounted : 1 = false;  ///< Its pages are counted when their words are read.
    bool isWritten : 1 = false;    ///< Private, and writable now or in the past.

    [[nodiscard]] std::uint64_t size() const { return end - start; }
    [[nodiscard]] bool has(std::uint8_t access) const { return (protection & access) != 0; }
    /// Number of the mapped file in the run; 0 if there is none, or it is not known which one.
    [[nodiscard]] std::uint32_t fileId() const { return file != nullptr ? file->number : 0; }
    /// Whether its pages are the kernel's, the same ones in every process. Nobody is charged for them.
    [[nodiscard]] bool isKernels() const {
        return tag == Tag::kVdso || tag == Tag::kVvar || tag == Tag::kVsyscall;
    }
    /// Whether the file lives in memory only, so that all of its pages are charged.
    [[nodiscard]] bool isOfMemoryFile() const { return fileId() != 0 && !hasStorage; }
    /// Whether it has pages that are its own and no file's.
    [[nodiscard]] bool hasOwnPages() const { return isPrivate && pages.anonymous + pages.swapped != 0; }
    /// One of the kShareMode constants.
    [[nodiscard]] std::uint8_t shareMode() const;
    /// The region as a look-up returns it.
    [[nodiscard]] RegionInfoRecord record() const;
};

}  // namespace zorbel
