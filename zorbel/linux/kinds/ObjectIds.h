#pragma once

#include <atomic>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "base/Name.h"

namespace zorbel {

/// Identifies a mapped file.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    /// The IPC namespace of a SysV segment, 0 for anything else. The inode number of a segment is its
    /// identifier. Another namespace, or another memory file on the same device, may have the same number.
    std::uint64_t ipcNamespace = 0;
    /// Of something that is no file of its own, the frame of the first page that is mapped; 0 for a file.
    std::uint64_t firstFrame = 0;
    /// Where a device has several trees with the same inode numbers, the one that the file is in; else 0.
    std::uint64_t subvolume = 0;
    /// Where device and inode do not show which file it is, the name that the kernel gives it; else absent.
    Name path = {};

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
    friend std::size_t hash_value(const FileIdentity& file);
};

/// Numbers files, and assigns object ids. An id is never 0 and never used for two objects. Shared by the
/// workers.
class ObjectIds {
  public:
    ObjectIds();

    /// Whether the identity belongs to a single file. The kernel uses one inode for all BPF maps, perf rings
    /// and the like, so it does not show what is mapped.
    [[nodiscard]] bool tellsFile(const FileIdentity& file) const { return file != _anonymousInode; }
    /// Number of a file in the run, from 1 on, in the order in which workers come across it: no object id.
    std::uint32_t numberOfFile(const FileIdentity& file);
    std::uint32_t newId() { return ++_last; }
    /// The id for an object of a saved memory graph. Graphs of one capture use the same number for the same
    /// object.
    std::uint32_t idOfSaved(Name capture, std::uint32_t number);

  private:
    FileIdentity _anonymousInode;
    std::mutex _mutex;
    boost::unordered_flat_map<FileIdentity, std::uint32_t> _files;
    std::unordered_map<Name, boost::unordered_flat_map<std::uint32_t, std::uint32_t>> _captures;
    std::atomic<std::uint32_t> _last = 0;
};

}  // namespace zorbel
