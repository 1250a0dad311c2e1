#include "linux/images/ElfFiles.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>

#include "base/Files.h"

namespace zorbel {

namespace {

#ifndef RESOLVE_CACHED
constexpr std::uint64_t RESOLVE_CACHED = 0x20;  // Since Linux 5.12.
#endif

/// Refers to the file that a region maps, even if it is renamed or deleted or in another mount namespace.
/// Needs privileges over the whole system.
FileDescriptor referToMappedFile(const SnapshotRegion& region, int processDirectory) {
    char path[64];
    std::snprintf(path, sizeof path, "map_files/%llx-%llx", static_cast<unsigned long long>(region.start),
                  static_cast<unsigned long long>(region.end));
    return FileDescriptor(openat(processDirectory, path, O_PATH | O_CLOEXEC));
}

/// Refers to the file with this name, as the process sees it. Only names in the kernel's cache are looked up,
/// which has those of all mapped files: any other directory may be on a file system that hangs.
FileDescriptor referToNamedFile(const SnapshotRegion& region, int processDirectory) {
    const FileDescriptor root(openat(processDirectory, "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen()) return FileDescriptor();
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_CACHED;
    return FileDescriptor(
        static_cast<int>(syscall(SYS_openat2, root.get(), region.file->path.c_str(), &how, sizeof how)));
}

/// Opens the region's file for reading, given a descriptor that only refers to it. First checks that it is a
/// regular file, since opening others may have side effects, and that it is the mapped file: the name may now
/// belong to another file, even on a file system that hangs, and the process may have called exec.
FileDescriptor openFileOf(const SnapshotRegion& region, const FileDescriptor& reference, bool isNamed) {
    struct statx status {};
    // DONT_SYNC: this may be another file, on a file system that hangs.
    if (!reference.isOpen() ||
        statx(reference.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &status) != 0)
        return FileDescriptor();
    const bool isDevice = makedev(status.stx_dev_major, status.stx_dev_minor) == region.file->device;
    if (!S_ISREG(status.stx_mode) || status.stx_ino != region.file->inode || (isNamed && !isDevice))
        return FileDescriptor();
    // NONBLOCK: the file's owner may hold a lease on it, and open would wait for its end.
    return FileDescriptor(open(("/proc/self/fd/" + std::to_string(reference.get())).c_str(),
                               O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

}  // namespace

ElfFiles::Answer ElfFiles::answerFor(const SnapshotRegion& region, int processDirectory) {
    File* file = nullptr;
    {
        const std::lock_guard lock(_mutex);
        File*& known = _fileOfId[region.fileId()];
        if (known == nullptr) known = &_files.emplace_back();
        file = known;
    }
    const std::lock_guard lock(file->mutex);
    if (file->kind == Kind::kUnreadable && region.fileUse == FileUse::kMayBeRead) {
        FileDescriptor descriptor = openFileOf(region, referToMappedFile(region, processDirectory), false);
        if (!descriptor.isOpen())
            descriptor = openFileOf(region, referToNamedFile(region, processDirectory), true);
        if (descriptor.isOpen()) {
            auto layout = readElfLayout(descriptor.get());
            file->kind = layout ? Kind::kElf : Kind::kOther;
            if (layout) file->layout = *std::move(layout);
        }
    }
    return {file->kind, &file->layout};
}

}  // namespace zorbel
