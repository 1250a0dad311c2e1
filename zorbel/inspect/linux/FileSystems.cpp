#include "inspect/linux/FileSystems.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <string_view>

#include "inspect/linux/ProcFiles.h"

namespace zorbel {

namespace {

FileSystems::Kind kindOfType(std::string_view type) {
    constexpr std::string_view kMemoryTypes[] = {"tmpfs", "ramfs", "devtmpfs", "rootfs", "hugetlbfs"};
    constexpr std::string_view kLocalTypes[] = {
        "bcachefs", "btrfs",    "cramfs", "erofs", "exfat", "ext2",   "ext3",  "ext4",    "f2fs",
        "hfsplus",  "iso9660",  "jffs2",  "jfs",   "msdos", "nilfs2", "ntfs3", "overlay", "reiserfs",
        "romfs",    "squashfs", "ubifs",  "udf",   "ufs",   "vfat",   "xfs",   "zfs",
    };
    const auto isOneOf = [type](const auto& types) {
        return std::find(std::begin(types), std::end(types), type) != std::end(types);
    };
    if (isOneOf(kMemoryTypes)) return FileSystems::Kind::kMemory;
    return isOneOf(kLocalTypes) ? FileSystems::Kind::kLocal : FileSystems::Kind::kRemote;
}

}  // namespace

FileSystems::FileSystems() {
    const FileDescriptor self(open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (self.isOpen()) addMountsOf(self.get());
    const FileDescriptor probe(memfd_create("zorbel", MFD_CLOEXEC));
    struct stat status {};
    if (probe.isOpen() && fstat(probe.get(), &status) == 0) _kinds[status.st_dev] = Kind::kKernel;
}

FileSystems::Kind FileSystems::kindOf(std::uint64_t device) {
    const std::lock_guard lock(_mutex);
    const auto known = _kinds.find(device);
    return known == _kinds.end() ? Kind::kUnknown : known->second;
}

void FileSystems::addMountsOf(int processDirectory) {
    if (const auto text = readWholeFile("mountinfo", processDirectory)) addMounts(*text);
}

/// A line is "id parent major:minor root mount-point options [optional fields] - type source options".
void FileSystems::addMounts(std::string_view mountinfo) {
    const std::lock_guard lock(_mutex);
    while (!mountinfo.empty()) {
        std::string_view line = mountinfo.substr(0, mountinfo.find('\n'));
        mountinfo.remove_prefix(std::min(line.size() + 1, mountinfo.size()));
        const std::size_t separator = line.find(" - ");
        if (separator == std::string_view::npos) continue;
        std::string_view type = line.substr(separator + 3);
        type = type.substr(0, type.find(' '));
        takeNumber(line);
        takeNumber(line);
        const auto majorNumber = takeNumber(line);
        if (!majorNumber || line.empty()) continue;
        line.remove_prefix(1);
        const auto minorNumber = takeNumber(line);
        if (!minorNumber) continue;
        _kinds[makedev(static_cast<unsigned>(*majorNumber), static_cast<unsigned>(*minorNumber))] =
            kindOfType(type);
    }
}

}  // namespace zorbel
