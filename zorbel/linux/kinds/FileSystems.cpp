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

FileSystems::Numbering numberingOfType(std::string_view type) {
    if (type == "overlay") return FileSystems::Numbering::kLayers;
    const bool hasSubvolumes = type == "btrfs" || type == "bcachefs";
    return hasSubvolumes ? FileSystems::Numbering::kSubvolumes : FileSystems::Numbering::kExact;
}

struct Mount {
    std::uint64_t id = 0;
    std::uint64_t device = 0;
    std::string_view root;
    std::string_view point;
    std::string_view type;
    std::string_view options;  ///< Of the file system, not of the mount.
};

/// Line format: "id parent major:minor root mount-point options [optional fields] - type source options".
std::optional<Mount> parseMount(std::string_view line) {
    const std::size_t separator = line.find(" - ");
    if (separator == std::string_view::npos) return std::nullopt;
    std::string_view fileSystem = line.substr(separator + 3);
    Mount mount;
    mount.id = takeNumber(line).value_or(0);
    takeNumber(line);
    const auto majorNumber = takeNumber(line);
    if (!majorNumber || line.empty()) return std::nullopt;
    line.remove_prefix(1);
    const auto minorNumber = takeNumber(line);
    if (!minorNumber) return std::nullopt;
    mount.device = makedev(static_cast<unsigned>(*majorNumber), static_cast<unsigned>(*minorNumber));
    mount.root = takeWord(line);
    mount.point = takeWord(line);
    mount.type = takeWord(fileSystem);
    takeWord(fileSystem);
    mount.options = takeWord(fileSystem);
    return mount;
}

/// Without the kernel's escapes: a backslash and three octal digits for a blank, a newline and the like.
std::string unescaped(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto digit = [&](std::size_t place) {
            return static_cast<unsigned char>(text[i + place] - '0');
        };
        if (text[i] == '\\' && i + 3 < text.size() && digit(1) < 4 && digit(2) < 8 && digit(3) < 8) {
            plain += static_cast<char>(digit(1) << 6 | digit(2) << 3 | digit(3));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
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

/// Calls consume with the option's name and each path of the layers of an overlay, in their order.
template <typename Consume>
void forEachLayer(const Mount& overlay, const Consume& consume) {
    for (std::string_view options = overlay.options; !options.empty();) {
        std::string_view paths = takeUpTo(options, ',');
        const std::string_view name = takeUpTo(paths, '=');
        if (!name.starts_with("lowerdir") && !name.starts_with("datadir") && name != "upperdir") continue;
        while (!paths.empty()) {
            const std::string_view path = takeUpTo(paths, ':');
            if (!path.empty()) consume(name, path);  // "::" precedes data-only layers.
        }
    }
}

/// Whether all layers of an overlay are on file systems that always answer.
bool hasLocalLayers(const Mount& overlay, const std::vector<Mount>& mounts) {
    bool hasLayers = false;
    bool areLocal = true;
    forEachLayer(overlay, [&](std::string_view, std::string_view path) {
        const Mount* mount = mountOf(path, mounts);
        hasLayers = true;
        areLocal = areLocal && mount != nullptr && kindOfType(mount->type) != FileSystems::Kind::kRemote;
    });
    return hasLayers && areLocal;
}

/// The upper directory of an overlay, if it has one, and the lower ones from the top down.
std::vector<std::string> layersOfOverlay(const Mount& overlay) {
    std::vector<std::string> layers(1);
    forEachLayer(overlay, [&](std::string_view name, std::string_view path) {
        if (name == "upperdir")
            layers.front() = path;
        else if (name.starts_with("lowerdir"))
            layers.emplace_back(path);
    });
    return layers;
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
        if (probe.isOpen() && fstat(probe.get(), &status) == 0) _fileSystems[status.st_dev].kind = kind;
    };
    addKernelMount(0, Kind::kKernel);
    // One for each size of huge pages. A file without contents takes no page.
    constexpr unsigned kSizeShift = 26;
    for (const std::uint64_t size : hugePageSizes(root))
        addKernelMount(MFD_HUGETLB | static_cast<unsigned>(std::countr_zero(size)) << kSizeShift,
                       Kind::kHuge);
}

FileSystems::FileSystem FileSystems::find(std::uint64_t device) {
    const std::lock_guard lock(_mutex);
    const auto known = _fileSystems.find(device);
    return known == _fileSystems.end() ? FileSystem() : known->second;
}

void FileSystems::noteProbe(std::uint64_t device, bool isExact) {
    const std::lock_guard lock(_mutex);
    FileSystem& known = _fileSystems[device];
    known.isProbed = true;
    if (!isExact) known.numbering = Numbering::kSubvolumes;
}

std::optional<FileSystems::MountPoint> FileSystems::mountWithId(std::uint64_t id) {
    const std::lock_guard lock(_mutex);
    const auto known = _mounts.find(id);
    return known == _mounts.end() ? std::nullopt : std::optional(known->second);
}

std::vector<std::string> FileSystems::layersOf(std::uint64_t device) {
    const std::lock_guard lock(_mutex);
    const auto known = _layers.find(device);
    return known == _layers.end() ? std::vector<std::string>() : known->second;
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
        const FileSystem found = {isLocalOverlay ? Kind::kLocal : kindOfType(mount.type),
                                  numberingOfType(mount.type)};
        // Mounts that others list do not override our own.
        if (areOurs)
            _fileSystems[mount.device] = found;
        else
            _fileSystems.emplace(mount.device, found);
        if (isLocalOverlay) _layers[mount.device] = layersOfOverlay(mount);
        _mounts.try_emplace(mount.id,
                            MountPoint{mount.device, unescaped(mount.root), unescaped(mount.point)});
    }
}

}  // namespace zorbel
