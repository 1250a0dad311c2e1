#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "linux/images/ElfFile.h"
#include "linux/process/SnapshotRegion.h"

namespace zorbel {

/// The layouts of mapped programs and libraries. Each file is read once, even if many processes map it.
/// Shared by the workers.
class ElfFiles {
  public:
    enum class Kind {
        kElf,
        kOther,
        kUnreadable,  ///< Not readable so far; may be through another process's mapping.
    };
    struct Answer {
        Kind kind = Kind::kUnreadable;
        const ElfLayout* layout = nullptr;  ///< Of an ELF file; valid for the whole run.
    };

    /// What is known about the file that a region of a process maps. Opens only a regular file on a file
    /// system that always answers.
    Answer answerFor(const SnapshotRegion& region, int processDirectory);

  private:
    struct File {
        std::mutex mutex;  ///< Locked while the file is read.
        Kind kind = Kind::kUnreadable;
        ElfLayout layout;  ///< Never changes after it is read.
    };

    std::mutex _mutex;
    /// By object id, which stands for device and inode. A mapped file keeps its inode, so the id identifies
    /// the file for a whole run.
    boost::unordered_flat_map<std::uint32_t, File*> _fileOfId;
    std::deque<File> _files;
};

}  // namespace zorbel
