#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <climits>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "base/Files.h"
#include "base/Name.h"
#include "linux/pages/PageSet.h"

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

/// Pages of a file that page tables show.
struct SeenPages {
    std::uint32_t file;
    std::uint64_t first;  ///< As all here, counted from the start of the file.
    std::uint64_t end;
};

/// Asks the kernel about a range of a file, in bytes (cachestat, from Linux 6.5 on). Nothing where it does
/// not say.
std::optional<FilePages> countPages(int file, std::uint64_t offset, std::uint64_t size);

/// How many pages of files are in memory and in swap, in the ranges that the targets of a run map.
///
/// Page tables show only what a process has touched, and nothing of shared memory in swap. The kernel counts
/// the pages of the file itself. So workers note which ranges of which files are mapped; when all are known,
/// ranges that overlap are merged and each is asked for once. Where a file can't be asked, which pages of it
/// the targets have in their page tables is noted instead, and each of those counts once.
///
/// Cost: one open file for each file with noted ranges, as far as there are descriptors, and a look at each
/// of its pages in memory, about 10 ns. For files that can't be asked, 16 bytes for each stretch of seen
/// pages.
class SharedFiles {
  public:
    /// Keeps only descriptors below this number. Files beyond that are opened anew when they are asked.
    explicit SharedFiles(int mostDescriptors = INT_MAX) : _mostDescriptors(mostDescriptors) {}

    /// A mapped range of a file.
    struct Range {
        std::uint64_t offset = 0;  ///< As the end, in bytes into the file.
        std::uint64_t end = 0;
        std::uint64_t swapped = 0;  ///< Pages of the file in swap, as far as smaps showed that.
        bool isSeen = false;        ///< Whether the process's pages are noted with see().
    };
    /// The mapping through which the file can be opened.
    struct Mapping {
        int processDirectory;
        std::uint64_t start;  ///< As the end, an address.
        std::uint64_t end;
        Name otherFile = {};  ///< Absolute path of the file that has the pages, if not the mapped one does.
    };

    /// Takes CAP_CHECKPOINT_RESTORE, and the process's user or root.
    static FileDescriptor open(const Mapping& mapping);

    /// Notes a mapped range. Opens the file through the mapping, if there is one, unless that has been done.
    /// From any thread. Returns whether the file could be opened.
    bool note(std::uint32_t file, const Range& range, const std::optional<Mapping>& mapping);

    /// Notes pages that a process has in its page tables. From any thread.
    void see(std::span<const SeenPages> pages);

    // When all ranges are noted, from one thread:

    /// Pages in all ranges of a file that are mapped, each once. Nothing where that is not known.
    std::optional<FilePages> pagesOf(std::uint32_t file);
    /// Pages in one range. Those in swap are the given ones where the file can't be asked.
    std::optional<FilePages> pagesIn(std::uint32_t file, std::uint64_t offset, std::uint64_t size,
                                     std::uint64_t swapped);

  private:
    using Stretch = std::pair<std::uint64_t, std::uint64_t>;  ///< Offset and end.

    struct File {
        FileDescriptor descriptor;
        std::vector<std::string> paths;  ///< Ways to open it where no descriptor is kept.
        std::vector<Range> ranges;
        std::map<Stretch, std::optional<FilePages>> known;
        std::optional<std::optional<FilePages>> total;
        PageSet seen;
        bool isAllSeen = true;
    };

    [[nodiscard]] static bool _isOpen(const File& file) {
        return file.descriptor.isOpen() || !file.paths.empty();
    }
    std::optional<FilePages> _ask(File& file, Stretch stretch);
    std::optional<FilePages> _askAll(File& file);
    [[nodiscard]] int _descriptorOf(const File& file);
    static std::uint64_t _swappedOf(const File& file);

    int _mostDescriptors;
    std::mutex _mutex;
    boost::unordered_flat_map<std::uint32_t, File> _files;
    FileDescriptor _reopened;  ///< Of the file that was opened anew last.
    const File* _reopenedFile = nullptr;
};

}  // namespace zorbel
