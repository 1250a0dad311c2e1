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
constexpr std::uint64_t RESOLVE_CACHED = 0x20;  // From Linux 5.12 on.
#endif

/// The file behind a region, whatever became of its name and in whatever mount namespace it is. Needs
/// privileges over the whole system.
FileDescriptor referToMappedFile(const SnapshotRegion& region, int processDirectory) {
    char path[64];
    std::snprintf(path, sizeof path, "map_files/%llx-%llx", static_cast<unsigned long long>(region.start),
                  static_cast<unsigned long long>(region.end));
    return FileDescriptor(openat(processDirectory, path, O_PATH | O_CLOEXEC));
}

/// The file of that name as the process sees it. A mapped file has its name and all directories above it in
/// the kernel's cache, and no more is looked at: a directory on the way may be on a file system that hangs.
FileDescriptor referToNamedFile(const SnapshotRegion& region, int processDirectory) {
    const FileDescriptor root(openat(processDirectory, "root", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen()) return FileDescriptor();
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_CACHED;
    return FileDescriptor(
        static_cast<int>(syscall(SYS_openat2, root.get(), region.path.c_str(), &how, sizeof how)));
}

/// Opens the region's file, which was only referred to before: to open anything but a regular file may do
/// things. Another file may bear the name by now, even one on a file system that hangs, and where the process
/// has run another program meanwhile, be mapped at the place.
FileDescriptor openFileOf(const SnapshotRegion& region, const FileDescriptor& reference, bool isNamed) {
    struct statx status {};
    // From the cache: what another file's file system is, is not known.
    if (!reference.isOpen() ||
        statx(reference.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &status) != 0)
        return FileDescriptor();
    const bool isDevice = makedev(status.stx_dev_major, status.stx_dev_minor) == region.device;
    if (!S_ISREG(status.stx_mode) || status.stx_ino != region.inode || (isNamed && !isDevice))
        return FileDescriptor();
    // Whoever owns the file may hold a lease on it, for the end of which others wait.
    return FileDescriptor(open(("/proc/self/fd/" + std::to_string(reference.get())).c_str(),
                               O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

}  // namespace

ElfFiles::Answer ElfFiles::answerFor(const SnapshotRegion& region, int processDirectory) {
    File* file = nullptr;
    {
        const std::lock_guard lock(_mutex);
        File*& known = _fileOfId[region.fileId];
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
