#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Name.h"
#include "linux/kinds/FileSystems.h"
#include "linux/kinds/ObjectIds.h"
#include "linux/process/FileReferences.h"
#include "linux/process/Smaps.h"

namespace zorbel {

/// Finds out which files a process maps.
///
/// The device and the inode number in maps identify a file on most file systems. Where the same inode numbers
/// occur in several subvolumes, fstat() shows more. The pages of a file on an overlay belong to a file in one
/// of its layers, which several overlays may have in common. What can't be found out about such a file makes
/// it a file of its own, so that strangers never count as one.
///
/// Cost: nothing on most file systems, after one file of each device has been looked at. Elsewhere two calls
/// for each file of a process, and on an overlay one for each layer down to the file.
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

    /// Identifies the file of an entry, given a /proc directory that shows the address space.
    Found identify(const SmapsEntry& entry, int processDirectory);

  private:
    struct LayerFile {
        std::string path;
        FileStatus status;
        FileSystems::Kind kind;
    };

    FileSystems::FileSystem _fileSystemOf(const SmapsEntry& entry, int processDirectory);
    std::optional<FileSystems::MountPoint> _mountOf(const FileStatus& status, int processDirectory);
    std::optional<FileStatus> _statusOf(const SmapsEntry& entry, int processDirectory);
    std::optional<LayerFile> _findLayerFile(const FileStatus& status, std::string_view path,
                                            int processDirectory);
    void _readMounts(int processDirectory);

    FileSystems& _fileSystems;
    bool _knowsMounts = false;
};

}  // namespace zorbel
