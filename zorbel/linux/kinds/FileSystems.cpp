#include "linux/kinds/FileSystems.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Files.h"
#include "base/TextCursor.h"

namespace zorbel {

namespace {

FileSystems::Kind kindOfType(std::string_view type) {
    constexpr std::string_view kMemoryTypes[] = {"tmpfs", "ramfs", "devtmpfs", "rootfs"};
    constexpr std::string_view kLocalTypes[] = {
        "bcachefs", "btrfs",   "cramfs", "erofs", "exfat", "ext2",   "ext3",  "ext4",     "f2fs",
        "hfsplus",  "iso9660", "jffs2",  "jfs",   "msdos", "nilfs2", "ntfs3", "reiserfs", "romfs",
        "squashfs", "ubifs",   "udf",    "ufs",   "vfat",  "xfs",    "zfs",
    };
    const auto isOneOf = [type](const auto& types) {
        return std::find(std::begin(types), std::end(types), type) != std::end(types);
    };
    if (type == "hugetlbfs") return FileSystems::Kind::kHuge;
    if (isOneOf(kMemoryTypes)) return FileSystems::Kind::kMemory;
    return isOneOf(kLocalTypes) ? FileSystems::Kind::kLocal : FileSystems::Kind::kRemote;
}

struct Mount {
    std::uint64_t device = 0;
    std::string_view point;
    std::string_view type;
    std::string_view options;  ///< Of the file system, not of the mount.
};

/// Line format: "id parent major:minor root mount-point options [optional fields] - type source options".
std::optional<Mount> parseMount(std::string_view line) {
    const std::size_t separator = line.find(" - ");
    if (separator == std::string_view::npos) return std::nullopt;
    std::string_view fileSystem = line.substr(separator + 3);
    takeNumber(line);
    takeNumber(line);
    const auto majorNumber = takeNumber(line);
    if (!majorNumber || line.empty()) return std::nullopt;
    line.remove_prefix(1);
    const auto minorNumber = takeNumber(line);
    if (!minorNumber) return std::nullopt;
    Mount mount;
    mount.device = makedev(static_cast<unsigned>(*majorNumber), static_cast<unsigned>(*minorNumber));
    takeWord(line);
    mount.point = takeWord(line);
    mount.type = takeWord(fileSystem);
    takeWord(fileSystem);
    mount.options = takeWord(fileSystem);
    return mount;
}

/// The mount that a path is on, judging by its text alone; null if the text does not show it.
const Mount* mountOf(std::string_view path, const std::vector<Mount>& mounts) {
    if (!path.starts_with('/') || path.find('\\') != std::string_view::npos) return nullptr;
    const Mount* found = nullptr;
    for (const Mount& mount : mounts) {
        const bool leadsThere = path.starts_with(mount.point) &&
                                (mount.point.ends_with('/') || path.size() == mount.point.size() ||
                                 path[mount.point.size()] == '/');
        // If two mounts have the same point, the later one hides the other.
        if (leadsThere && (found == nullptr || mount.point.size() >= found->point.size())) found = &mount;
    }
    return found;
}

/// Whether all layers of an overlay are on file systems that always answer.
bool hasLocalLayers(const Mount& overlay, const std::vector<Mount>& mounts) {
    bool hasLayers = false;
    for (std::string_view options = overlay.options; !options.empty();) {
        std::string_view paths = takeUpTo(options, ',');
        const std::string_view name = takeUpTo(paths, '=');
        if (!name.starts_with("lowerdir") && !name.starts_with("datadir") && name != "upperdir") continue;
        while (!paths.empty()) {
            const std::string_view path = takeUpTo(paths, ':');
            if (path.empty()) continue;  // "::" precedes data-only layers.
            const Mount* mount = mountOf(path, mounts);
            if (mount == nullptr || kindOfType(mount->type) == FileSystems::Kind::kRemote) return false;
            hasLayers = true;
        }
    }
    return hasLayers;
}

/// In bytes: the kernel has a directory "hugepages-2048kB" for each.
std::vector<std::uint64_t> hugePageSizes(const SystemRoot& root) {
    constexpr std::string_view kPrefix = "hugepages-";
    std::vector<std::uint64_t> sizes;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(root.sys + "/kernel/mm/hugepages", error)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with(kPrefix)) continue;
        std::string_view rest = std::string_view(name).substr(kPrefix.size());
        if (const auto kibibytes = takeNumber(rest); kibibytes && std::has_single_bit(*kibibytes))
            sizes.push_back(*kibibytes * 1024);
    }
    return sizes;
}

}  // namespace

FileSystems::FileSystems(const SystemRoot& root) {
    if (const auto text = readWholeFile((root.proc + "/self/mountinfo").c_str(), AT_FDCWD))
        addMounts(*text, true);
    const auto addKernelMount = [this](unsigned flags, Kind kind) {
        const FileDescriptor probe(memfd_create("zorbel", MFD_CLOEXEC | flags));
        struct stat status {};
        if (probe.isOpen() && fstat(probe.get(), &status) == 0) _kinds[status.st_dev] = kind;
    };
    addKernelMount(0, Kind::kKernel);
    // One for each size of huge pages. A file without contents takes no page.
    constexpr unsigned kSizeShift = 26;
    for (const std::uint64_t size : hugePageSizes(root))
        addKernelMount(MFD_HUGETLB | static_cast<unsigned>(std::countr_zero(size)) << kSizeShift,
                       Kind::kHuge);
}

FileSystems::Kind FileSystems::kindOf(std::uint64_t device) {
    const std::lock_guard lock(_mutex);
    const auto known = _kinds.find(device);
    return known == _kinds.end() ? Kind::kUnknown : known->second;
}

void FileSystems::addMountsOf(int processDirectory) {
    if (const auto text = readWholeFile("mountinfo", processDirectory)) addMounts(*text, false);
}

void FileSystems::addMounts(std::string_view mountinfo, bool areOurs) {
    std::vector<Mount> mounts;
    while (!mountinfo.empty())
        if (const auto mount = parseMount(takeUpTo(mountinfo, '\n'))) mounts.push_back(*mount);
    const std::lock_guard lock(_mutex);
    for (const Mount& mount : mounts) {
        const bool isLocalOverlay = areOurs && mount.type == "overlay" && hasLocalLayers(mount, mounts);
        const Kind kind = isLocalOverlay ? Kind::kLocal : kindOfType(mount.type);
        // Mounts that others list do not override our own.
        if (areOurs)
            _kinds[mount.device] = kind;
        else
            _kinds.emplace(mount.device, kind);
    }
}

}  // namespace zorbel
