#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "linux/images/ElfFile.h"
#include "linux/process/SnapshotRegion.h"

namespace zorbel {

/// The layouts of the programs and libraries that processes map, each read once however many map it. Shared
/// by the workers.
class ElfFiles {
  public:
    enum class Kind {
        kElf,
        kOther,
        kUnreadable,  ///< May not or can't be read; another process's mapping of the file might do.
    };
    struct Answer {
        Kind kind = Kind::kUnreadable;
        const ElfLayout* layout = nullptr;  ///< Of an ELF file; good for the whole run.
    };

    /// What is known of the file that a region of the process maps whose /proc directory is given. Opens the
    /// file only where its file system is one that answers, and if it is a regular file.
    Answer answerFor(const SnapshotRegion& region, int processDirectory);

  private:
    struct File {
        std::mutex mutex;  ///< Held while the file is read.
        Kind kind = Kind::kUnreadable;
        ElfLayout layout;  ///< Never changes once it is read.
    };

    std::mutex _mutex;
    /// By the id that stands for a file's device and inode. A mapped file keeps its inode, so for as
    /// long as a run lasts that is identity enough.
    boost::unordered_flat_map<std::uint32_t, File*> _fileOfId;
    std::deque<File> _files;
};

}  // namespace zorbel
