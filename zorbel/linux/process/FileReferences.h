#pragma once

#include <cstdint>
#include <optional>

#include "base/Files.h"

namespace zorbel {

// Descriptors that only refer to a file (O_PATH). Getting one neither opens the file nor waits for its file
// system.

/// Refers to the file that a process maps at exactly these addresses, even if it is renamed or deleted or in
/// another mount namespace. Needs privileges over the whole system.
FileDescriptor referToMappedFile(std::uint64_t start, std::uint64_t end, int processDirectory);

/// Refers to the file with this name, as the process sees it. Only names in the kernel's cache are looked up,
/// which has those of all mapped files: any other directory may be on a file system that hangs.
FileDescriptor referToNamedFile(const char* path, int processDirectory);

/// Refers to a directory of ours; only names in the kernel's cache are looked up.
FileDescriptor referToDirectory(const char* path);

/// Refers to a file below a directory, without following links or leaving the file system, which must be one
/// that always answers. On failure, errno is set.
FileDescriptor referToFileBelow(const FileDescriptor& directory, const char* path);

/// What the kernel knows of a file without asking a file system that might not answer.
struct FileStatus {
    std::uint64_t device = 0;  ///< As returned by makedev().
    std::uint64_t inode = 0;
    std::uint64_t subvolume = 0;     ///< Inode numbers repeat in others; 0 where there are none.
    std::uint64_t mount = 0;         ///< As in mountinfo; 0 before Linux 5.8.
    std::uint64_t size = 0;          ///< In bytes.
    std::int64_t modified = 0;       ///< In seconds.
    std::uint32_t modifiedRest = 0;  ///< In nanoseconds.
    std::uint64_t nodeDevice = 0;    ///< The device that a device node stands for.
    bool isRegular = false;
    bool isBlockDevice = false;
};

/// Nothing if the descriptor is not open.
std::optional<FileStatus> statusOf(const FileDescriptor& reference);

/// Opens for reading what a descriptor refers to. Does not wait for the holder of a lease.
FileDescriptor openReferred(const FileDescriptor& reference);

}  // namespace zorbel
