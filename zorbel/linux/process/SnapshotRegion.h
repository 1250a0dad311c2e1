#pragma once

#include <cstdint>

#include "base/Name.h"
#include "platform/Records.h"

namespace zorbel {

/// What zorbel may do with the file that a region maps.
enum class FileUse : std::uint8_t {
    kNone,      ///< No file, or one that can't be a program or library.
    kLookOnly,  ///< Must not be opened: its file system might never answer.
    kMayBeRead,
};

/// One region of a snapshot.
struct SnapshotRegion {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    RegionInfoRecord record;
    Name path;                 ///< Of the mapped file, printable; absent for anonymous memory.
    std::uint64_t device = 0;  ///< Of the mapped file, as returned by makedev().
    std::uint64_t inode = 0;   ///< Of the mapped file.
    std::uint32_t fileId = 0;  ///< Object id of the mapped file; 0 if there is none.
    FileUse fileUse = FileUse::kNone;
    bool isPrivate = false;
    bool isPlainAnonymous = false;  ///< Private, without file or name.
    bool isHuge = false;            ///< In hugetlbfs.
    bool isWritten = false;         ///< Private, and writable now or in the past.

    /// Whether its object is not the mapped file. Then each part of it is a separate object too.
    [[nodiscard]] bool hasOwnObject() const { return record.object_id != fileId; }

    [[nodiscard]] std::uint64_t size() const { return end - start; }
};

}  // namespace zorbel
