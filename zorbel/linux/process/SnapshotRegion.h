#pragma once

#include <cstdint>

#include "base/Name.h"
#include "platform/Records.h"

namespace zorbel {

/// What may be done with the file that a region maps.
enum class FileUse : std::uint8_t {
    kNone,      ///< There is none, or none that could be a program or library.
    kLookOnly,  ///< Not to be opened: its file system might never answer.
    kMayBeRead,
};

/// One region of a snapshot, ready to answer look-ups.
struct SnapshotRegion {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    RegionInfoRecord record;
    Name path;                 ///< Of the mapped file, fit to be printed; absent for anonymous memory.
    std::uint64_t device = 0;  ///< Of the mapped file, as makedev() makes it.
    std::uint64_t inode = 0;   ///< Of the mapped file.
    std::uint32_t fileId = 0;  ///< The object id of the mapped file; 0 when there is none.
    FileUse fileUse = FileUse::kNone;
    bool isPrivate = false;
    bool isPlainAnonymous = false;  ///< Private, no file, no name.
    bool isHuge = false;            ///< Of hugetlbfs.
    bool isWritten = false;         ///< Private and writable, be it in the past.

    /// Whether its memory is its own, and the parts of it are each an object of their own.
    [[nodiscard]] bool hasOwnObject() const { return record.object_id != fileId; }

    [[nodiscard]] std::uint64_t size() const { return end - start; }
};

}  // namespace zorbel
