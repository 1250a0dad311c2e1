#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <climits>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "base/Files.h"

namespace zorbel {

/// Pages of a stretch of a file.
struct FilePages {
    std::uint64_t cached = 0;   ///< In memory.
    std::uint64_t dirty = 0;    ///< In memory, and not yet written to the file.
    std::uint64_t swapped = 0;  ///< In swap, which only files without storage use.

    FilePages& operator+=(const FilePages& other) {
        cached += other.cached;
        dirty += other.dirty;
        swapped += other.swapped;
        return *this;
    }
};

/// How many pages of files are in memory and in swap, in the ranges that the targets of a run map.
///
/// Page tables show only what a process has touched, and nothing of shared memory in swap. The kernel counts
/// the pages of the file itself (cachestat, from Linux 6.5 on). So workers note which ranges of which files
/// are mapped; when all are known, ranges that overlap are merged and each is asked for once.
///
/// Cost: one open file for each file with noted ranges, and a look at each of its pages in memory, about 10
/// ns.
class SharedFiles {
  public:
    /// Keeps only descriptors below this number. Files beyond that are unknown.
    explicit SharedFiles(int mostDescriptors = INT_MAX) : _mostDescriptors(mostDescriptors) {}

    /// Notes a mapped range, in bytes. The file is opened when it is noted for the first time; a descriptor
    /// that is not open makes this file unknown unless somebody else can open it. From any thread.
    /// Returns whether the file is open.
    bool note(std::uint32_t file, std::uint64_t offset, std::uint64_t size,
              const std::function<FileDescriptor()>& open);

    // When all ranges are noted, from one thread:

    /// Pages in all ranges of a file that are mapped, each once. Nothing where the kernel does not say.
    std::optional<FilePages> pagesOf(std::uint32_t file);
    /// Pages in one range.
    std::optional<FilePages> pagesIn(std::uint32_t file, std::uint64_t offset, std::uint64_t size);

  private:
    using Range = std::pair<std::uint64_t, std::uint64_t>;  ///< Offset and end.

    struct File {
        FileDescriptor descriptor;
        std::vector<Range> ranges;
        std::map<Range, std::optional<FilePages>> known;
        std::optional<std::optional<FilePages>> total;
    };

    static std::optional<FilePages> _ask(File& file, Range range);

    int _mostDescriptors;
    std::mutex _mutex;
    boost::unordered_flat_map<std::uint32_t, File> _files;
};

}  // namespace zorbel
