#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zorbel {

/// Tells by device number what kind of file system a mapped file is on, without touching the file: a file
/// system that is served by a process or a dead server might never answer. Shared by the workers.
class FileSystems {
  public:
    enum class Kind {
        kUnknown,  ///< Nowhere mounted that we can see.
        kMemory,   ///< Lives in memory only: pages have no file to be read from again.
        kKernel,   ///< The kernel's own mount behind memfd, SysV and shared anonymous memory, in no list.
        kLocal,    ///< On storage of this machine, which answers without anyone's help.
        kRemote,   ///< On storage that a process or another machine serves, or that we don't know.
    };

    /// Reads the mounts of our own namespace from the /proc that is given.
    explicit FileSystems(const std::string& proc = "/proc");

    /// The kind of the file system with the device number, as far as the mounts tell that are known by now.
    Kind kindOf(std::uint64_t device);

    /// Adds the mounts that the process sees whose /proc directory is given.
    void addMountsOf(int processDirectory);

    /// Adds the mounts that the text of a mountinfo lists. An overlay is as local as its layers, which it
    /// names by paths of whoever mounted it: those are believed in our own mounts only, where nobody but root
    /// mounts anything, and an overlay that others list is remote.
    void addMounts(std::string_view mountinfo, bool areOurs);

  private:
    std::mutex _mutex;
    std::unordered_map<std::uint64_t, Kind> _kinds;
};

}  // namespace zorbel
