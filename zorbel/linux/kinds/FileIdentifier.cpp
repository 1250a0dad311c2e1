#include "linux/kinds/FileIdentifier.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

namespace zorbel {

namespace {

/// Where nodes of devices are, which stand for more than a file.
bool mayBeDeviceNode(std::string_view path) {
    return path.starts_with("/dev/") && !path.starts_with("/dev/shm/");
}

/// The path of a file within its file system, given the mount that it is seen through. Empty where the text
/// does not show it.
std::string pathWithin(const FileSystems::MountPoint& mount, std::string_view path) {
    if (path.find('\\') != std::string_view::npos || path.ends_with(" (deleted)")) return {};
    std::string_view rest = path;
    if (mount.path != "/") {
        if (!rest.starts_with(mount.path)) return {};
        rest.remove_prefix(mount.path.size());
    }
    if (!rest.starts_with('/')) return {};
    return (mount.root == "/" ? std::string() : mount.root) + std::string(rest);
}

/// Whether a file in a layer has only the attributes of a file, and its contents are in a layer below.
bool hasNoContents(const FileDescriptor& reference) {
    const std::string path = "/proc/self/fd/" + std::to_string(reference.get());
    char value[256];
    for (const char* name : {"trusted.overlay.metacopy", "user.overlay.metacopy"})
        if (getxattr(path.c_str(), name, value, sizeof value) >= 0 || errno == ERANGE) return true;
    return false;
}

/// Whether a file in a layer is what an overlay shows. The overlay keeps the inode number of a lower file,
/// and goes on showing it when the file has been copied up; large numbers may have that of the layer on top.
bool isShownAs(const FileStatus& shown, const FileStatus& inLayer, bool isUpper) {
    constexpr std::uint64_t kOwnBits = (std::uint64_t{1} << 48) - 1;
    return inLayer.isRegular && shown.size == inLayer.size && shown.modified == inLayer.modified &&
           shown.modifiedRest == inLayer.modifiedRest &&
           (isUpper || ((shown.inode ^ inLayer.inode) & kOwnBits) == 0);
}

FileIdentity identityOf(const FileStatus& status) {
    FileIdentity identity;
    identity.device = status.device;
    identity.inode = status.inode;
    identity.subvolume = status.subvolume;
    return identity;
}

}  // namespace

FileIdentifier::Found FileIdentifier::identify(const SmapsEntry& entry, Process& process) {
    using Numbering = FileSystems::Numbering;
    Found found;
    found.identity.device = found.device = entry.device;
    found.identity.inode = found.inode = entry.inode;
    if (entry.path.starts_with("/SYSV")) {
        struct stat ipc {};
        if (fstatat(process.directory, "ns/ipc", &ipc, 0) == 0) found.identity.ipcNamespace = ipc.st_ino;
    }
    FileSystems::FileSystem fileSystem = _fileSystemOf(entry, process);
    found.fileSystem = fileSystem.kind;
    if (!entry.path.starts_with('/')) return found;

    const bool isLocal = fileSystem.kind == FileSystems::Kind::kLocal;
    const bool mayBeNode = fileSystem.kind == FileSystems::Kind::kMemory && mayBeDeviceNode(entry.path);
    const bool needsProbe = isLocal && !fileSystem.isProbed && fileSystem.numbering == Numbering::kExact;
    if (fileSystem.numbering == Numbering::kExact && !mayBeNode && !needsProbe) return found;

    std::optional<FileStatus> status;
    if (isLocal || mayBeNode) status = _statusOf(entry, process);
    if (mayBeNode) {
        // Whatever the nodes are called, and wherever they are.
        found.isBlockDevice = status && status->isBlockDevice;
        if (found.isBlockDevice) found.identity = {.device = status->nodeDevice};
        return found;
    }
    if (needsProbe) {
        const bool isExact = !status || (status->device == entry.device && status->subvolume == 0);
        _fileSystems.noteProbe(entry.device, isExact);
        if (isExact) return found;
        fileSystem.numbering = Numbering::kSubvolumes;
    }
    if (status) {
        found.identity = identityOf(*status);
        found.device = status->device;
        found.inode = status->inode;
    }
    found.isLayered = fileSystem.numbering == Numbering::kLayers;
    std::optional<LayerFile> inLayer;
    if (found.isLayered && status) inLayer = _layerFileOf(*status, entry.path, process);
    if (inLayer) {
        found.identity = identityOf(inLayer->status);
        found.fileSystem = inLayer->kind;
        found.layerFile = Name(inLayer->path);
    } else if (found.isLayered || !status) {
        found.identity.path = Name(entry.path);
    }
    return found;
}

/// If our own namespace does not mount the file system, looks at the mounts of the process.
FileSystems::FileSystem FileIdentifier::_fileSystemOf(const SmapsEntry& entry, Process& process) {
    if (process.fileSystem.isProbed && process.device == entry.device) return process.fileSystem;
    const FileSystems::FileSystem found = _fileSystems.find(entry.device);
    process.device = entry.device;
    process.fileSystem = found;
    if (found.kind != FileSystems::Kind::kUnknown || !entry.path.starts_with('/') || process.knowsMounts)
        return found;
    _readMounts(process);
    return _fileSystems.find(entry.device);
}

std::optional<FileSystems::MountPoint> FileIdentifier::_mountOf(const FileStatus& status, Process& process) {
    auto mount = _fileSystems.mountWithId(status.mount);
    if (mount || process.knowsMounts || status.mount == 0) return mount;
    _readMounts(process);
    return _fileSystems.mountWithId(status.mount);
}

/// What is known of the file of an entry: it must be on the file system that maps shows, and a name may
/// belong to another file by now.
std::optional<FileStatus> FileIdentifier::_statusOf(const SmapsEntry& entry, Process& process) {
    auto status = statusOf(referToMappedFile(entry.start, entry.end, process.directory));
    const bool isNamed = !status;
    if (isNamed) status = statusOf(referToNamedFile(std::string(entry.path).c_str(), process.directory));
    if (!status) return std::nullopt;
    const auto mount = _mountOf(*status, process);
    const bool isThere = mount ? mount->device == entry.device : !isNamed;
    // On an overlay, the two numbers may differ for a file that was copied up.
    const bool isAlike = status->inode == entry.inode;
    const bool isLayered = _fileSystems.find(entry.device).numbering == FileSystems::Numbering::kLayers;
    return isThere && (isAlike || (isLayered && !isNamed)) ? status : std::nullopt;
}

/// The file in a layer of an overlay that has the pages of a file, given the name that a process maps it by.
std::optional<FileIdentifier::LayerFile> FileIdentifier::_layerFileOf(const FileStatus& status,
                                                                      std::string_view path,
                                                                      Process& process) {
    const auto mount = _mountOf(status, process);
    const std::string within = mount ? pathWithin(*mount, path) : std::string();
    if (within.empty()) return std::nullopt;
    std::pair<std::uint64_t, FileIdentity> key = {mount->device, identityOf(status)};
    key.second.path = Name(within);
    {
        const std::lock_guard lock(_mutex);
        const auto known = _layerFiles.find(key);
        if (known != _layerFiles.end()) return known->second;
    }
    const auto found = _findLayerFile(status, mount->device, within);
    const std::lock_guard lock(_mutex);
    return _layerFiles.try_emplace(key, found).first->second;
}

/// Looks for the file from the uppermost layer on, given its path in the overlay.
std::optional<FileIdentifier::LayerFile> FileIdentifier::_findLayerFile(const FileStatus& status,
                                                                        std::uint64_t overlay,
                                                                        const std::string& path) {
    bool isUpper = true;
    for (const std::string& directory : _fileSystems.layersOf(overlay)) {
        const bool isInUpper = std::exchange(isUpper, false);
        if (directory.empty()) continue;
        const FileDescriptor top = referToDirectory(directory.c_str());
        const auto topStatus = statusOf(top);
        const auto topMount = topStatus ? _fileSystems.mountWithId(topStatus->mount) : std::nullopt;
        if (!topMount) return std::nullopt;
        const FileSystems::FileSystem fileSystem = _fileSystems.find(topMount->device);
        const bool answers =
            fileSystem.kind == FileSystems::Kind::kLocal || fileSystem.kind == FileSystems::Kind::kMemory;
        if (!answers || fileSystem.numbering == FileSystems::Numbering::kLayers) return std::nullopt;
        const FileDescriptor reference = referToFileBelow(top, path.c_str() + 1);
        if (!reference.isOpen() && errno != ENOENT) return std::nullopt;
        const auto inLayer = statusOf(reference);
        if (!inLayer || hasNoContents(reference)) continue;
        if (!isShownAs(status, *inLayer, isInUpper)) return std::nullopt;
        return LayerFile{directory + path, *inLayer, fileSystem.kind};
    }
    return std::nullopt;
}

void FileIdentifier::_readMounts(Process& process) {
    process.knowsMounts = true;
    _fileSystems.addMountsOf(process.directory);
}

}  // namespace zorbel
