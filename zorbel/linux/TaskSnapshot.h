#pragma once

#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/Files.h"
#include "linux/images/ElfFiles.h"
#include "linux/images/LoadedImages.h"
#include "linux/kinds/FileIdentifier.h"
#include "linux/kinds/ObjectIds.h"
#include "linux/pages/Families.h"
#include "linux/pages/FrameFlags.h"
#include "linux/pages/Lineages.h"
#include "linux/pages/PageTables.h"
#include "linux/pages/SharedFiles.h"
#include "linux/pages/SwapCache.h"
#include "linux/process/Smaps.h"
#include "linux/process/SnapshotRegion.h"
#include "platform/Platform.h"

namespace zorbel {

/// What all snapshots of a run share.
struct SnapshotServices {
    FileIdentifier& fileIdentifier;
    ElfFiles& elfFiles;
    ObjectIds& objectIds;
    SharedFiles& sharedFiles;
    const FrameFlags& frameFlags;
    PageAccess pageAccess;  ///< Where it has no scan, smaps is read instead of maps.
};

/// When the smaps of a process is read too: it alone shows which regions are locked, and which pages lazily
/// freed.
enum class SmapsUse : std::uint8_t {
    kNever,
    kForLazyPages,  ///< If the flags of frames can't rule out that there are any.
    kAlways,
};

/// How a process is read.
struct ReadingPlan {
    LineageUse lineageUse;
    SmapsUse smapsUse = SmapsUse::kNever;
    /// Resident pages that are no file's, all regions together, as far as known; huge pages of hugetlbfs left
    /// out.
    std::optional<std::uint64_t> anonymousPages;
    /// Private pages in swap, as far as known.
    std::optional<std::uint64_t> swappedPages;
    std::uint64_t threads = 1;  ///< As far as known.
};

/// The regions and images of a process. Regions are disjoint and in ascending order.
///
/// The regions come from maps, and their pages from the page tables; where those can't be scanned or opened,
/// both come from smaps. The kernel merges neighbours, such as a
/// library's zeroed data and a heap above it: regions are split where a segment of an image begins or ends.
class TaskSnapshot {
  public:
    /// Reads a process, given its /proc directory. If the address space disappears meanwhile, reads again:
    /// the process may have called exec.
    TaskSnapshot(int processDirectory, const SnapshotServices& services, const ReadingPlan& plan = {});

    /// Fills in what depends on other tasks: object ids, and what counts for shared objects.
    [[nodiscard]] std::vector<SnapshotRegion>& regions() { return _regions; }
    /// Keeps shared pages for the regions.
    std::span<const SharedPages> keep(std::span<const SharedPages> shared);
    /// Takes the regions of another snapshot, which shows the same address space.
    void takeRegionsOf(const TaskSnapshot& other);

    /// The first region that ends above the address, or null.
    [[nodiscard]] const SnapshotRegion* regionAtOrAfter(std::uint64_t address) const;

    /// What a look-up after the last region returns: kKernInvalidAddress if all regions were read,
    /// kMachSendInvalidDest if the process exited before that, an errno's code if reading failed.
    [[nodiscard]] KernReturn codeAtEnd() const { return _codeAtEnd; }

    /// The programs and libraries that the process has loaded.
    [[nodiscard]] const LoadedImages& images() const { return _images; }

    /// Writes the dispositions of count pages, as Platform::mach_vm_page_range_query describes. The address
    /// must be the start of a page.
    KernReturn queryPages(int processDirectory, std::uint64_t address, std::uint64_t count,
                          std::int32_t* dispositions) const;

  private:
    void _readRegions(int processDirectory, const ReadingPlan& plan);
    KernReturn _read(int processDirectory, const std::string& place, const ReadingPlan& plan);
    void _addEntry(const SmapsEntry& entry, int processDirectory);
    void _lookAtFile(const SmapsEntry& entry, int processDirectory);

    void _findImages(int processDirectory);
    void _split(std::vector<std::uint64_t> cuts);
    /// Whether the region is a part of one that was split.
    [[nodiscard]] bool _isSplit(const SnapshotRegion& region) const;
    /// Finds whose heap, or which thread's stack, memory without a file is.
    void _nameAnonymousMemory(int processDirectory, const ReadingPlan& plan);

    // In TaskSnapshotPages.cpp.
    /// Counts the pages of all regions. 0 or an errno.
    int _countAllPages(const ReadingPlan& plan);
    int _recountSwapped(std::span<SnapshotRegion> regions, const ReadingPlan& plan);
    /// Counts the pages of regions that follow each other. Large anonymous ones are left out where the words
    /// of their pages are read later. 0 or an errno.
    int _countPages(std::span<SnapshotRegion> counted, bool readsWords);
    /// Of private mappings of files in memory, whose pages in swap smaps counts with the file's.
    void _tellOwnSwap();
    /// Whether the pages that a region has of its file count by page tables.
    [[nodiscard]] bool _countsSeenPages(const SnapshotRegion& region) const;
    /// Notes a run of pages of the region's file, for the files that count like that.
    void _see(const SnapshotRegion& region, std::uint64_t start, std::uint64_t end);
    /// Looks at such pages where only their number is known.
    void _seePagesOfFiles();
    /// Likewise, with one question. 0 or an errno.
    int _countStretch(std::span<SnapshotRegion> regions, PageTables::Detail detail);
    void _recountSplitRegions(const ReadingPlan& plan);
    /// Where lazily freed pages are is not known: heaps free like that, so those with most pages have them.
    void _distributeLazyPages();
    /// Calls with the addresses at which runs of guard pages begin in the region.
    void _forEachGuard(const SnapshotRegion& region, const std::function<void(std::uint64_t start)>& visit);
    [[nodiscard]] bool _mayHaveLazyPages();
    void _readDetails(int processDirectory);
    /// False where a file on disk is mapped that may have been written through the mapping, but whose dirty
    /// pages can't be counted in the file: smaps shows them.
    bool _noteFiles(int processDirectory);
    /// Objects of the kernel that share one inode are told apart by the frame of their first page.
    void _identifyByFrames();
    void _notePages(const LineageUse& use);
    void _notePagesOf(SnapshotRegion& region, const LineageUse& use);
    /// Memory of devices shows by its pages only.
    void _markDevices();

    /// The directory whose files show the address space.
    [[nodiscard]] int _directoryOfMemory(int processDirectory) const {
        return _thread.isOpen() ? _thread.get() : processDirectory;
    }

    SnapshotServices _services;
    FileDescriptor _thread;  ///< The /proc directory of a thread; open if the process's own files do not show
                             ///< its memory.
    std::optional<PageTables> _tables;  ///< While it is read.
    std::vector<SeenPages> _seen;       ///< Likewise.
    bool _knowsSeen = false;            ///< Whether these are all.
    std::vector<SnapshotRegion> _regions;
    /// Lent to the regions; also of a snapshot that has taken them over.
    std::shared_ptr<std::forward_list<MappedFile>> _files = std::make_shared<std::forward_list<MappedFile>>();
    LoadedImages _images;
    std::forward_list<std::vector<SharedPages>> _shared;  ///< Lent to the regions.
    KernReturn _codeAtEnd = kKernInvalidAddress;
    mutable std::size_t _lastFound = 0;
    FileIdentifier::Process _identified;  ///< While its files are identified.
    bool _isFromSmaps = false;            ///< Otherwise from maps and the page tables.
    struct SplitRegion {
        std::uint64_t start;
        std::uint64_t end;
        std::uint32_t lazy = 0;  ///< Lazily freed pages that no part has yet.
    };
    std::span<SnapshotRegion> _partsOf(const SplitRegion& whole);
    std::vector<SplitRegion> _splitRegions;

    /// The file of the last entry that maps one. Regions of one file follow each other, so the next entry
    /// usually maps the same file.
    struct {
        std::uint64_t device = 0;  // As in maps.
        std::uint64_t inode = 0;   // Likewise.
        std::string rawPath;
        FileSystems::Kind fileSystem = FileSystems::Kind::kUnknown;
        bool isBlockDevice = false;
        const MappedFile* mapped = nullptr;
    } _file;
};

}  // namespace zorbel
