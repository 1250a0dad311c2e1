#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/Name.h"
#include "linux/kinds/FileSystems.h"
#include "linux/kinds/ObjectIds.h"
#include "linux/process/FileReferences.h"
#include "linux/process/Smaps.h"

namespace zorbel {

/// Finds out which files processes map. Shared by the workers.
///
/// The device and the inode number in maps identify a file on most file systems. Where the same inode numbers
/// occur in several subvolumes, fstat() shows more. The pages of a file on an overlay belong to a file in one
/// of its layers, which several overlays may have in common. What can't be found out about such a file makes
/// it a file of its own, so that strangers never count as one.
///
/// Cost: nothing on most file systems, after one file of each device has been looked at. Elsewhere two calls
/// for each file of a process, and on an overlay, once for each of its files, three for each layer down to
/// the file.
class FileIdentifier {
  public:
    /// A mapped file.
    struct Found {
        FileIdentity identity;
        /// The file system of the pages, which is not the overlay's where the file in the layer was found.
        FileSystems::Kind fileSystem = FileSystems::Kind::kUnknown;
        std::uint64_t device = 0;  ///< As fstat() shows it, or else maps.
        std::uint64_t inode = 0;   ///< Likewise.
        bool isLayered = false;    ///< On an overlay.
        Name layerFile;            ///< Absolute path of the file in the layer, if it was found.
        bool isBlockDevice = false;
    };

    explicit FileIdentifier(FileSystems& fileSystems) : _fileSystems(fileSystems) {}

    /// A process whose files are identified.
    struct Process {
        int directory = -1;        ///< A /proc directory that shows its address space.
        bool knowsMounts = false;  ///< Whether the mounts that it sees have been read.
        /// The last file system that was found and probed: most files of a process are on one.
        std::uint64_t device = 0;
        FileSystems::FileSystem fileSystem;
    };

    /// Identifies the file of an entry.
    Found identify(const SmapsEntry& entry, Process& process);

  private:
    struct LayerFile {
        std::string path;
        FileStatus status;
        FileSystems::Kind kind;
    };

    FileSystems::FileSystem _fileSystemOf(const SmapsEntry& entry, Process& process);
    std::optional<FileSystems::MountPoint> _mountOf(const FileStatus& status, Process& process);
    std::optional<FileStatus> _statusOf(const SmapsEntry& entry, Process& process);
    std::optional<LayerFile> _layerFileOf(const FileStatus& status, std::string_view path, Process& process);
    std::optional<LayerFile> _findLayerFile(const FileStatus& status, std::uint64_t overlay,
                                            const std::string& path);
    void _readMounts(Process& process);

    FileSystems& _fileSystems;
    std::mutex _mutex;
    /// What was found, by the overlay and what it shows of the file.
    boost::unordered_flat_map<std::pair<std::uint64_t, FileIdentity>, std::optional<LayerFile>> _layerFiles;
};

}  // namespace zorbel
