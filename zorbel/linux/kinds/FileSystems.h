#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "linux/process/SystemRoot.h"

namespace zorbel {

/// The kind of file system that a mapped file is on, found by device number. The file is not touched: a file
/// system served by a process or a dead server might never answer. Shared by the workers.
class FileSystems {
  public:
    enum class Kind {
        kUnknown,  ///< No mount that we can see has this device.
        kMemory,   ///< In memory only: pages can't be read from storage again.
        kKernel,   ///< The kernel's unlisted mount for memfd, SysV and shared anonymous memory.
        kHuge,     ///< A hugetlbfs, listed or the kernel's own.
        kLocal,    ///< On this machine's storage, so it always answers.
        kRemote,   ///< Served by a process or another machine, or of an unknown type.
    };

    /// What the device and the inode number that maps shows say about a file.
    enum class Numbering {
        kExact,       ///< They are those of fstat(), and no two files have the same.
        kSubvolumes,  ///< Trees with devices of their own, which only fstat() shows, and equal inode numbers.
        kLayers,      ///< An overlay: several ones may show one file, and one of them two.
    };

    struct FileSystem {
        Kind kind = Kind::kUnknown;
        Numbering numbering = Numbering::kExact;
        bool isProbed = false;  ///< Whether fstat() was compared with maps.
    };

    /// A place where a file system is mounted.
    struct MountPoint {
        std::uint64_t device = 0;
        std::string root;  ///< The directory of the file system that is mounted.
        std::string path;  ///< As the processes of its namespace see it.
    };

    /// Reads the mounts of our own namespace from /proc/self/mountinfo, and finds the kernel's own.
    explicit FileSystems(const SystemRoot& root = {});

    /// The file system with this device number; one of kind kUnknown if no mount read so far has it.
    FileSystem find(std::uint64_t device);
    Kind kindOf(std::uint64_t device) { return find(device).kind; }

    /// Notes that fstat() was compared with maps for a file there, and whether both showed the same device.
    void noteProbe(std::uint64_t device, bool isExact);

    /// The mount with this number, which no other one has at the same time, in the mounts read so far.
    std::optional<MountPoint> mountWithId(std::uint64_t id);

    /// The directories that an overlay consists of: the upper one, which is an empty text if there is none,
    /// and the lower ones from the top down. Only for our own mounts whose layers are local, otherwise empty.
    std::vector<std::string> layersOf(std::uint64_t device);

    /// Adds the mounts that a process sees, given its /proc directory.
    void addMountsOf(int processDirectory);

    /// Adds the mounts in the text of a mountinfo. An overlay is local if all its layers are. Layers are
    /// paths chosen by the one who mounted it, so they are used only for our own mounts, which only root can
    /// make. Any other overlay is remote.
    void addMounts(std::string_view mountinfo, bool areOurs);

  private:
    std::mutex _mutex;
    std::unordered_map<std::uint64_t, FileSystem> _fileSystems;           // By device.
    std::unordered_map<std::uint64_t, MountPoint> _mounts;                // By number.
    std::unordered_map<std::uint64_t, std::vector<std::string>> _layers;  // By device of the overlay.
};

}  // namespace zorbel
