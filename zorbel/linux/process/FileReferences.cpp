#include "linux/process/FileReferences.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

namespace zorbel {

namespace {

#ifndef RESOLVE_CACHED
constexpr std::uint64_t RESOLVE_CACHED = 0x20;  // Since Linux 5.12.
#endif
#ifndef STATX_MNT_ID
constexpr unsigned STATX_MNT_ID = 0x1000;  // Since Linux 5.8.
#endif

// Of <linux/stat.h>, from Linux 6.10 on.
constexpr unsigned kSubvolumeBit = 0x8000;
constexpr std::size_t kMountPlace = 0x90;
constexpr std::size_t kSubvolumePlace = 0xA0;

FileDescriptor refer(int directory, const char* path, std::uint64_t flags, std::uint64_t resolve) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC | flags;
    how.resolve = resolve;
    return FileDescriptor(static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how)));
}

/// A member of the kernel's record that the C library's declaration may lack.
std::uint64_t memberAt(const struct statx& status, std::size_t place) {
    std::uint64_t value = 0;
    std::memcpy(&value, reinterpret_cast<const std::byte*>(&status) + place, sizeof value);
    return value;
}

}  // namespace

FileDescriptor referToMappedFile(std::uint64_t start, std::uint64_t end, int processDirectory) {
    char path[64];
    std::snprintf(path, sizeof path, "map_files/%llx-%llx", static_cast<unsigned long long>(start),
                  static_cast<unsigned long long>(end));
    return FileDescriptor(openat(processDirectory, path, O_PATH | O_CLOEXEC));
}

FileDescriptor referToNamedFile(const char* path, int processDirectory) {
    const FileDescriptor root(openat(processDirectory, "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen()) return FileDescriptor();
    return refer(root.get(), path, 0, RESOLVE_IN_ROOT | RESOLVE_CACHED);
}

FileDescriptor referToDirectory(const char* path) {
    return refer(AT_FDCWD, path, O_DIRECTORY, RESOLVE_CACHED);
}

FileDescriptor referToFileBelow(const FileDescriptor& directory, const char* path) {
    return refer(directory.get(), path, O_NOFOLLOW, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV);
}

std::optional<FileStatus> statusOf(const FileDescriptor& reference) {
    struct statx status {};
    // DONT_SYNC: the file may be on a file system that hangs.
    if (!reference.isOpen() || statx(reference.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC,
                                     STATX_BASIC_STATS | STATX_MNT_ID | kSubvolumeBit, &status) != 0)
        return std::nullopt;
    FileStatus result;
    result.device = makedev(status.stx_dev_major, status.stx_dev_minor);
    result.inode = status.stx_ino;
    if ((status.stx_mask & kSubvolumeBit) != 0) result.subvolume = memberAt(status, kSubvolumePlace);
    if ((status.stx_mask & STATX_MNT_ID) != 0) result.mount = memberAt(status, kMountPlace);
    result.size = status.stx_size;
    result.modified = status.stx_mtime.tv_sec;
    result.modifiedRest = status.stx_mtime.tv_nsec;
    result.nodeDevice = makedev(status.stx_rdev_major, status.stx_rdev_minor);
    result.isRegular = S_ISREG(status.stx_mode);
    result.isBlockDevice = S_ISBLK(status.stx_mode);
    return result;
}

FileDescriptor openReferred(const FileDescriptor& reference) {
    // NONBLOCK: the file's owner may hold a lease on it, and open would wait for its end.
    return FileDescriptor(open(("/proc/self/fd/" + std::to_string(reference.get())).c_str(),
                               O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

}  // namespace zorbel
