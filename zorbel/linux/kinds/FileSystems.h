#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_map>

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

    /// Reads the mounts of our own namespace from /proc/self/mountinfo, and finds the kernel's own.
    explicit FileSystems(const SystemRoot& root = {});

    /// The kind of the file system with this device number; kUnknown if no mount read so far has it.
    Kind kindOf(std::uint64_t device);

    /// Adds the mounts that a process sees, given its /proc directory.
    void addMountsOf(int processDirectory);

    /// Adds the mounts in the text of a mountinfo. An overlay is local if all its layers are. Layers are
    /// paths chosen by the one who mounted it, so they are used only for our own mounts, which only root can
    /// make. Any other overlay is remote.
    void addMounts(std::string_view mountinfo, bool areOurs);

  private:
    std::mutex _mutex;
    std::unordered_map<std::uint64_t, Kind> _kinds;
};

}  // namespace zorbel
