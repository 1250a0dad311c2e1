// The pages of a snapshot: how many of which kind, and who else may have them.

#include <algorithm>
#include <cerrno>

#include "linux/TaskSnapshot.h"
#include "linux/kinds/RegionKinds.h"
#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

/// Without the ones above the addresses of processes, which have no page tables.
std::span<SnapshotRegion> belowKernel(std::span<SnapshotRegion> regions) {
    while (!regions.empty() && regions.back().tag == Tag::kVsyscall)
        regions = regions.first(regions.size() - 1);
    return regions;
}

/// Whether it is private and maps no file.
bool isAnonymous(const SnapshotRegion& region) { return region.isPrivate && region.file == nullptr; }

/// Anonymous memory has no pages of files, and shared memory nothing else. A shared mapping of a named file
/// may turn out to be one of a device.
PageTables::Detail detailOf(const SnapshotRegion& region) {
    const bool isShared = region.tag == Tag::kMemfd || region.tag == Tag::kSysVShared ||
                          region.tag == Tag::kSharedAnonymous || region.tag == Tag::kSecretMemory;
    const bool isAlike = region.isPrivate ? isAnonymous(region) || region.isOnlyFile : isShared;
    return isAlike && !region.isKernels() ? PageTables::Detail::kPlace : PageTables::Detail::kWhetherFile;
}

/// Whether two regions map the same file, the second right behind the first.
bool continues(const SnapshotRegion& region, const SnapshotRegion& before) {
    return before.end == region.start && before.fileId() == region.fileId();
}

/// Marks the private mappings of files that have most likely never been written. Not those that are writable,
/// nor what a loader has written before it took away the right: such a part lies before a writable one, or
/// behind one that looks the same, from which the kernel keeps it apart because it was written.
void markOnlyFiles(std::span<SnapshotRegion> regions) {
    for (std::size_t i = 0; i < regions.size(); ++i) {
        SnapshotRegion& region = regions[i];
        const bool isExecutable = region.has(SmapsEntry::kExecute);
        const bool isBehindAlike =
            i > 0 && continues(region, regions[i - 1]) && regions[i - 1].protection == region.protection;
        const bool isBeforeWritten =
            i + 1 < regions.size() && continues(regions[i + 1], region) && regions[i + 1].isWritten;
        region.isOnlyFile = region.isPrivate && region.fileId() != 0 && !region.isHuge && !region.isWritten &&
                            (isExecutable || (!isBehindAlike && !isBeforeWritten));
    }
}

/// Resident pages that are no file's, those of hugetlbfs left out.
std::uint64_t anonymousPagesOf(std::span<const SnapshotRegion> regions) {
    std::uint64_t pages = 0;
    for (const SnapshotRegion& region : regions)
        if (!region.isHuge) pages += region.pages.anonymous;
    return pages;
}

/// Private pages that are in swap, or look like that.
std::uint64_t swappedPagesOf(std::span<const SnapshotRegion> regions) {
    std::uint64_t pages = 0;
    for (const SnapshotRegion& region : regions) pages += region.pages.swapped;
    return pages;
}

/// Whether the kernel can't count the pages of the file: it does not for huge pages, and secret memory can't
/// be opened again.
bool isNeverAsked(const SnapshotRegion& region) { return region.isHuge || region.tag == Tag::kSecretMemory; }

using Regions = std::span<SnapshotRegion>;

/// The end of the regions at the beginning that need the same detail, and are all private or all shared.
Regions::iterator endOfAlike(Regions::iterator first, Regions::iterator end) {
    return std::find_if(first + 1, end, [&first = *first](const SnapshotRegion& region) {
        return detailOf(region) != detailOf(first) || region.isPrivate != first.isPrivate;
    });
}

/// The end of the regions at the beginning that are not far from each other: a call reaches only so far, and
/// between a program and its libraries are terabytes without anything.
Regions::iterator endOfNeighbours(Regions::iterator first, Regions::iterator end) {
    const auto last =
        std::adjacent_find(first, end, [](const SnapshotRegion& region, const SnapshotRegion& next) {
            return next.start - region.end > PageTables::kNearReach;
        });
    return last == end ? end : last + 1;
}

/// In bytes.
std::uint64_t sizeOf(Regions regions) {
    std::uint64_t size = 0;
    for (const SnapshotRegion& region : regions) size += region.size();
    return size;
}

/// Whether pages that are present are the file's.
bool isOfFile(const PageRun& run, PageTables::Detail detail, const SnapshotRegion& region) {
    return run.isFile || (detail == PageTables::Detail::kPlace && !isAnonymous(region));
}

void add(const PageRun& run, bool isFile, std::uint32_t pages, SnapshotRegion& region) {
    if (region.tag == Tag::kVvar) return;  // Present, but of no use to count: no memory of the system's.
    if (!run.isPresent)  // Shared pages in swap don't show; what looks like them is a mark of the kernel's.
        region.pages.swapped += region.isPrivate ? pages : 0;
    else if (isFile)
        region.pages.file += pages;
    else if (region.isPrivate)
        region.pages.anonymous += pages;
    else  // Pages of a shared mapping that are neither: of a device.
        region.isDevice = true;
}

/// Gives each part its share of the pages that the whole has, by size. The sums stay the same.
void distributePages(Regions parts) {
    const RegionPages whole = parts.front().pages;
    std::uint64_t restSize = sizeOf(parts);
    RegionPages rest = whole;
    for (SnapshotRegion& part : parts) {
        for (const auto count : {&RegionPages::anonymous, &RegionPages::file, &RegionPages::swapped,
                                 &RegionPages::fileSwapped, &RegionPages::fileDirty, &RegionPages::lazy}) {
            part.pages.*count =
                static_cast<std::uint32_t>(static_cast<double>(rest.*count) *
                                           static_cast<double>(part.size()) / static_cast<double>(restSize));
            rest.*count -= part.pages.*count;
        }
        restSize -= part.size();
    }
}

}  // namespace

// Most of what processes map is programs and libraries that nobody has written, and to tell their pages from
// copies is most of the cost of a scan. But the kernel knows how many pages of a process are no file's: where
// the others make up that number, these mappings have none. If they do not, because of a breakpoint, or
// because the process goes on, all is looked at again with every detail.
int TaskSnapshot::_countAllPages(const ReadingPlan& plan) {
    const bool readsWords = plan.lineageUse.lineages != nullptr;
    const bool mayVerify = plan.anonymousPages && !readsWords;
    if (mayVerify) markOnlyFiles(_regions);
    _seen.clear();
    _knowsSeen = true;
    int error = _countPages(_regions, readsWords);
    if (error == 0 && mayVerify && anonymousPagesOf(_regions) != *plan.anonymousPages) {
        for (SnapshotRegion& region : _regions) region.isOnlyFile = false;
        _seen.clear();
        error = _countPages(_regions, readsWords);
    }
    if (error == 0 && swappedPagesOf(_regions) != plan.swappedPages) error = _recountSwapped(_regions, plan);
    return error;
}

// Guards and other marks of the kernel's look like pages in swap to the scan; their words show the
// difference.
int TaskSnapshot::_recountSwapped(Regions regions, const ReadingPlan& plan) {
    for (SnapshotRegion& region : regions) {
        if (region.pages.swapped == 0) continue;
        region.pages.swapped = 0;
        if (plan.swappedPages == 0U) continue;
        int error = 0;
        const int scanError = _tables->forEachRun(
            region.start, region.end, PageTables::Detail::kPlace, [&](const PageRun& run) {
                if (run.isPresent || error != 0) return;
                error = _tables->forEachWord(run.start, run.end, [&](std::uint64_t, auto words) {
                    for (const std::uint64_t word : words) region.pages.swapped += PageWord(word).isSwapped();
                });
            });
        if (error != 0 || scanError != 0) return error != 0 ? error : scanError;
    }
    return 0;
}

int TaskSnapshot::_countStretch(std::span<SnapshotRegion> regions, PageTables::Detail detail) {
    for (SnapshotRegion& region : regions) region.pages = {};
    auto region = regions.begin();
    return _tables->forEachRun(regions.front().start, regions.back().end, detail, [&](const PageRun& run) {
        for (std::uint64_t start = run.start; start < run.end;) {
            while (region != regions.end() && region->end <= start) ++region;
            if (region == regions.end() || region->start >= run.end)
                return;  // Mapped since the regions were read.
            start = std::max(start, region->start);
            const std::uint64_t end = std::min(run.end, region->end);
            const bool isFile = run.isPresent && isOfFile(run, detail, *region);
            add(run, isFile, static_cast<std::uint32_t>((end - start) / pageSize()), *region);
            if (isFile) _see(*region, start, end);
            start = end;
        }
    });
}

// Pages of files cost the kernel a look at each page, so large stretches that have none are scanned apart.
int TaskSnapshot::_countPages(std::span<SnapshotRegion> counted, bool readsWords) {
    using Detail = PageTables::Detail;
    constexpr std::uint64_t kWorthACall = 1 << 18;  // In bytes.
    const std::span<SnapshotRegion> regions = belowKernel(counted);
    const auto isLarge = [](Regions alike) {
        return detailOf(alike.front()) == Detail::kPlace && sizeOf(alike) >= kWorthACall;
    };
    for (auto first = regions.begin(); first != regions.end();) {
        auto last = endOfAlike(first, regions.end());
        const bool isAlike = isLarge({first, last});
        while (!isAlike && last != regions.end()) {
            const auto next = endOfAlike(last, regions.end());
            if (isLarge({last, next})) break;
            last = next;
        }
        const Regions stretch(first, last);
        first = last;
        if (isAlike && readsWords && stretch.front().isPrivate) {
            for (SnapshotRegion& region : stretch) region.isUncounted = true;
            continue;
        }
        const Detail detail = isAlike ? Detail::kPlace : Detail::kWhetherFile;
        for (auto begin = stretch.begin(); begin != stretch.end();) {
            const auto end = endOfNeighbours(begin, stretch.end());
            if (const int error = _countStretch({begin, end}, detail); error != 0) return error;
            begin = end;
        }
    }
    return 0;
}

// Page tables have the slots of private pages. Those of a file's pages are in the file only.
void TaskSnapshot::_tellOwnSwap() {
    if (!_tables->isOpen()) return;
    for (SnapshotRegion& region : _regions) {
        const std::uint32_t all = region.pages.swapped + region.pages.fileSwapped;
        if (!region.isPrivate || region.file == nullptr || region.hasStorage || all == 0) continue;
        std::uint32_t own = 0;
        const auto count = [&own](std::uint64_t, std::span<const std::uint64_t> words) {
            for (const std::uint64_t word : words) own += PageWord(word).isSwapped();
        };
        if (_tables->forEachWord(region.start, region.end, count) != 0) continue;
        region.pages.swapped = std::min(own, all);
        region.pages.fileSwapped = all - region.pages.swapped;
    }
}

// The parts had the pages of the whole until now. Where page tables can't be read, each gets a share. Where
// lazily freed pages are is not known: heaps free like that, and are large.
void TaskSnapshot::_recountSplitRegions(const ReadingPlan& plan) {
    for (SplitRegion& whole : _splitRegions) {
        const Regions parts = _partsOf(whole);
        const std::uint32_t lazy = parts.front().pages.lazy;
        if (!parts.front().isUncounted &&
            (_countPages(parts, false) != 0 || _recountSwapped(parts, plan) != 0)) {
            distributePages(parts);
            continue;
        }
        whole.lazy = lazy;
        for (SnapshotRegion& part : parts) part.pages.lazy = 0;
    }
}

// When the pages of all parts are counted.
void TaskSnapshot::_distributeLazyPages() {
    for (SplitRegion& whole : _splitRegions) {
        std::vector<SnapshotRegion*> parts;
        if (whole.lazy != 0)
            for (SnapshotRegion& part : _partsOf(whole)) parts.push_back(&part);
        std::ranges::sort(parts, std::ranges::greater(),
                          [](const SnapshotRegion* part) { return part->pages.anonymous; });
        for (SnapshotRegion* part : parts) {
            part->pages.lazy = std::min(whole.lazy, part->pages.anonymous);
            whole.lazy -= part->pages.lazy;
        }
    }
}

std::span<SnapshotRegion> TaskSnapshot::_partsOf(const SplitRegion& whole) {
    const auto first = std::ranges::lower_bound(_regions, whole.start, {}, &SnapshotRegion::start);
    const auto last = std::ranges::lower_bound(_regions, whole.end, {}, &SnapshotRegion::start);
    return {first, last};
}

void TaskSnapshot::_forEachGuard(const SnapshotRegion& region,
                                 const std::function<void(std::uint64_t start)>& visit) {
    std::uint64_t end = 0;  // Of the last guard.
    const auto look = [&](std::uint64_t address, std::span<const std::uint64_t> words) {
        for (const std::uint64_t word : words) {
            if (PageWord(word).isGuard()) {
                if (address != end) visit(address);
                end = address + pageSize();
            }
            address += pageSize();
        }
    };
    _tables->forEachRun(region.start, region.end, PageTables::Detail::kPlace, [&](const PageRun& run) {
        if (!run.isPresent)
            _tables->forEachWord(std::max(run.start, region.start), std::min(run.end, region.end), look);
    });
}

// Only anonymous mappings can be freed like that.
bool TaskSnapshot::_mayHaveLazyPages() {
    if (!_services.pageAccess.seesFrames() || !_services.frameFlags.isOpen()) return true;
    for (const SnapshotRegion& region : _regions) {
        if (!region.isPrivate || region.fileId() != 0 || (region.pages.anonymous == 0 && !region.isUncounted))
            continue;
        bool mayBeLazy = false;
        _tables->forEachUsedWord(region.start, region.end, [&](std::uint64_t, auto words, std::uint32_t) {
            mayBeLazy = mayBeLazy || _services.frameFlags.mayBeLazy(words);
        });
        if (mayBeLazy) return true;
    }
    return false;
}

void TaskSnapshot::_readDetails(int processDirectory) {
    const auto text = readWholeFile("smaps", processDirectory);
    if (!text) return;
    auto region = _regions.begin();
    parseSmaps(*text, true, [&](const SmapsEntry& entry) {
        while (region != _regions.end() && region->start < entry.start) ++region;
        if (region == _regions.end() || region->start != entry.start || region->end != entry.end) return;
        region->isLocked = (entry.flags & SmapsEntry::kLocked) != 0;
        region->pages.lazy = pagesOfKibibytes(entry.lazyFree);
        if (entry.isShared)
            region->pages.fileDirty = pagesOfKibibytes(entry.sharedDirty + entry.privateDirty);
    });
}

bool TaskSnapshot::_countsSeenPages(const SnapshotRegion& region) const {
    return region.fileId() != 0 && !region.hasStorage &&
           (isNeverAsked(region) || (!_services.pageAccess.countsFiles && hasSharedPages(region.tag)));
}

void TaskSnapshot::_see(const SnapshotRegion& region, std::uint64_t start, std::uint64_t end) {
    if (!_countsSeenPages(region)) return;
    const std::uint64_t first = (region.offset + (start - region.start)) / pageSize();
    _seen.push_back({region.fileId(), first, first + (end - start) / pageSize()});
}

// smaps calls all huge pages of a private mapping its own, though some may be the file's.
void TaskSnapshot::_seePagesOfFiles() {
    _seen.clear();
    _knowsSeen = _tables->isOpen();
    if (!_knowsSeen) return;
    for (SnapshotRegion& region : _regions) {
        if (!_countsSeenPages(region) || region.pages.file + region.pages.anonymous == 0) continue;
        std::uint32_t pages = 0;
        const auto see = [&](const PageRun& run) {
            if (!run.isPresent || !run.isFile) return;
            pages += static_cast<std::uint32_t>(run.pages());
            _see(region, run.start, run.end);
        };
        const int error =
            _tables->forEachRun(region.start, region.end, PageTables::Detail::kWhetherFile, see);
        _knowsSeen = _knowsSeen && error == 0;
        if (!region.isHuge || !region.isPrivate) continue;
        pages = std::min(pages, region.pages.anonymous);
        region.pages.anonymous -= pages;
        region.pages.file += pages;
    }
}

bool TaskSnapshot::_noteFiles(int processDirectory) {
    bool isKnown = true;
    for (const SnapshotRegion& region : _regions) {
        // Programs map many files shared that they only read, and without root none can be opened.
        const bool mayBeDirty = region.has(SmapsEntry::kWrite) && region.pages.file != 0;
        const bool isOnDisk = region.hasStorage;
        const bool isOfInterest =
            isOnDisk ? !region.isPrivate : isNeverAsked(region) || hasSharedPages(region.tag);
        if (region.fileId() == 0 || !isOfInterest) continue;
        const bool isSeen = _countsSeenPages(region) && (_knowsSeen || region.pages.file == 0);
        // The files of an overlay have no pages: those of its layers do.
        const MappedFile& file = *region.file;
        const bool mayOpen = _services.pageAccess.countsFiles && !isNeverAsked(region) &&
                             (!isOnDisk || region.fileUse == FileUse::kMayBeRead) &&
                             (!file.isLayered || file.layerFile.isPresent());
        std::optional<SharedFiles::Mapping> mapping;
        if (mayOpen) mapping = {processDirectory, region.start, region.end, file.layerFile};
        const bool isOpen = _services.sharedFiles.note(
            region.fileId(), {region.offset, region.offset + region.size(), region.pages.fileSwapped, isSeen},
            mapping);
        isKnown = isKnown && (isOpen || !isOnDisk || !mayBeDirty);
    }
    if (_knowsSeen) _services.sharedFiles.see(_seen);
    return isKnown;
}

void TaskSnapshot::_identifyByFrames() {
    if (!_services.pageAccess.seesFrames()) return;
    for (SnapshotRegion& region : _regions) {
        if (region.tag != Tag::kBpfMap || region.fileId() != 0 || region.pages.file == 0) continue;
        PageWord first(0);
        _tables->forEachWord(region.start, region.start + pageSize(),
                             [&](std::uint64_t, auto words) { first = PageWord(words[0]); });
        if (!first.isPresent() || first.frame() == 0) continue;
        MappedFile& mapped = _files->emplace_front(*region.file);
        mapped.number = _services.objectIds.numberOfFile({.firstFrame = first.frame()});
        region.file = &mapped;
    }
}

void TaskSnapshot::_notePages(const LineageUse& use) {
    if (use.lineages == nullptr) return;
    if (!_tables->isOpen()) {
        if (!_isFromSmaps) _codeAtEnd = kMachSendInvalidDest;  // It could be opened before.
        return;
    }
    for (SnapshotRegion& region : _regions)
        if ((region.isUncounted || region.hasOwnPages()) && !region.isKernels()) _notePagesOf(region, use);
    if (!_tables->isAlive()) _codeAtEnd = kMachSendInvalidDest;
}

void TaskSnapshot::_notePagesOf(SnapshotRegion& region, const LineageUse& use) {
    const Lineages::Member member = use.lineages->addMember();
    Lineages::Holder holder(*use.lineages, member);
    region.member = member + 1;
    RegionPages& pages = region.pages;
    pages.anonymous = pages.swapped = 0;
    const auto note = [&](std::uint64_t page, PageWord word, std::uint32_t count) {
        if (_tables->isZeroPage(word)) return;
        if (word.isPresent() && !word.isFile()) {
            const std::uint64_t frame = use.seesFrames ? word.frame() : page;
            pages.anonymous += count;
            if (use.swapCache != nullptr && count == 1 && _services.frameFlags.mayBeCopyOfSlot(frame)) {
                use.swapCache->noteFrame(member, page, frame);
            } else if (word.isExclusive() && !use.notesExclusive &&
                       !(use.seesFrames && _tables->mayBeOfHugePage(page, word))) {
                region.exclusive += count;
            } else if (count == 1) {
                holder.holdFrame(frame);
            } else {
                holder.holdFrames(frame, count);
            }
        } else if (word.isSwapped()) {
            pages.swapped += count;
            holder.holdSlot(use.seesFrames ? word.slot() : page);
            if (use.swapCache != nullptr && !use.isTwin) use.swapCache->noteSlot(page, word.slot());
        }
    };
    _tables->forEachUsedWord(
        region.start, region.end,
        [&](std::uint64_t address, std::span<const std::uint64_t> words, std::uint32_t count) {
            std::uint64_t page = address / pageSize();
            for (const std::uint64_t word : words) note(page++, PageWord(word), count);
        });
}

void TaskSnapshot::_markDevices() {
    for (SnapshotRegion& region : _regions) {
        if (!region.isDevice || (region.tag != Tag::kNone && !region.hasStorage)) continue;
        region.tag = Tag::kDeviceMemory;
        region.hasStorage = false;
    }
}

std::span<const SharedPages> TaskSnapshot::keep(std::span<const SharedPages> shared) {
    const std::vector<SharedPages>& kept = _shared.emplace_front(shared.begin(), shared.end());
    return kept;
}

KernReturn TaskSnapshot::queryPages(int processDirectory, std::uint64_t address, std::uint64_t count,
                                    std::int32_t* dispositions) const {
    std::fill_n(dispositions, count, 0);
    PageTables tables(processDirectory, _services.pageAccess);
    if (!tables.isOpen())
        return errno == ENOENT || errno == ESRCH ? kKernInvalidArgument : kernReturnFromErrno(errno);
    const std::uint64_t end = address + count * pageSize();
    for (std::uint64_t at = address; at < end;) {
        const SnapshotRegion* region = regionAtOrAfter(at);
        if (region == nullptr || region->start >= end) break;
        const std::uint64_t start = std::max(region->start, at);
        const std::uint64_t stop = std::min(region->end, end);
        at = stop;
        // [vsyscall] is above the addresses of processes and has no entries in pagemap.
        if (region->tag == Tag::kVsyscall) continue;
        const int error =
            tables.forEachRun(start, stop, PageTables::Detail::kWhetherFile, [&](const PageRun& run) {
                const bool isExternal = run.isFile && region->hasStorage;
                const std::int32_t disposition =
                    !run.isPresent ? kPageQueryPagedOut
                                   : kPageQueryPresent | (isExternal ? kPageQueryExternal : kPageQueryDirty);
                const std::uint64_t last = std::min(run.end, stop);
                for (std::uint64_t page = std::max(run.start, start); page < last; page += pageSize())
                    dispositions[(page - address) / pageSize()] = disposition;
            });
        if (error == ESRCH) return kKernInvalidArgument;
        if (error != 0) return kernReturnFromErrno(error);
    }
    return kKernSuccess;
}

}  // namespace zorbel
