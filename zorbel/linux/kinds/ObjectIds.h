#pragma once

#include <atomic>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "base/Name.h"

namespace zorbel {

/// What tells one mapped file from another.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    /// SysV segments bear their identifier as inode number, beside other memory files on the same device, and
    /// each IPC namespace counts its own: that namespace, or 0 for anything else.
    std::uint64_t ipcNamespace = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
    friend std::size_t hash_value(const FileIdentity& file);
};

/// Gives out object ids: one for each file, whoever maps it, one for each object of saved memory graphs, and
/// a new one for whatever is mapped only once. Never 0, never the same id for two objects. Shared by the
/// workers.
class ObjectIds {
  public:
    ObjectIds();

    /// Whether the identity stands for one file. The kernel hangs BPF maps, perf rings and their like all on
    /// one inode, which tells nothing of what is mapped.
    [[nodiscard]] bool tellsFile(const FileIdentity& file) const { return file != _anonymousInode; }
    std::uint32_t idOfFile(const FileIdentity& file);
    std::uint32_t newId() { return ++_last; }
    /// For an object of saved memory graphs: those of one capture tell it by the same number.
    std::uint32_t idOfSaved(Name capture, std::uint32_t number);

  private:
    FileIdentity _anonymousInode;
    std::mutex _mutex;
    boost::unordered_flat_map<FileIdentity, std::uint32_t> _files;
    std::unordered_map<Name, boost::unordered_flat_map<std::uint32_t, std::uint32_t>> _captures;
    std::atomic<std::uint32_t> _last = 0;
};

}  // namespace zorbel
