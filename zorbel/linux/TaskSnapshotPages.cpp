// The pages of a snapshot: how many of which kind, and who else may have them.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "linux/TaskSnapshot.h"
#include "linux/kinds/RegionKinds.h"
#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

/// Pages of the kernel's that every process maps: nobody is charged for them.
bool isKernels(const SnapshotRegion& region) {
    return region.tag() == Tag::kVdso || region.tag() == Tag::kVvar || region.tag() == Tag::kVsyscall;
}

/// Without the ones above the addresses of processes, which have no page tables.
std::span<SnapshotRegion> belowKernel(std::span<SnapshotRegion> regions) {
    while (!regions.empty() && regions.back().tag() == Tag::kVsyscall)
        regions = regions.first(regions.size() - 1);
    return regions;
}

void add(const PageRun& run, std::uint32_t pages, SnapshotRegion& region) {
    if (region.tag() == Tag::kVvar) return;  // Present, but of no use to count: no memory of the system's.
    if (!run.isPresent)
        region.pages.swapped += pages;
    else if (run.isFile)
        region.pages.file += pages;
    else if (region.isPrivate)
        region.pages.anonymous += pages;
    else  // Pages of a shared mapping that are neither: of a device.
        region.isDevice = true;
}

/// Size of what the kernel maps as one huge page, in bytes, a power of two; that of x86 and most others where
/// it is not known.
std::uint64_t hugePageSize() {
    static const std::uint64_t kSize = [] {
        const auto text = readWholeFile("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size", AT_FDCWD);
        const unsigned long long size = text ? std::strtoull(text->c_str(), nullptr, 10) : 0;
        return size >= pageSize() ? size : std::uint64_t{2} << 20;
    }();
    return kSize;
}

}  // namespace

int TaskSnapshot::_countPages(PageTables& tables, std::span<SnapshotRegion> counted) {
    const std::span<SnapshotRegion> regions = belowKernel(counted);
    if (regions.empty()) return 0;
    for (SnapshotRegion& region : regions) region.pages = {};
    auto region = regions.begin();
    return tables.forEachRun(regions.front().start, regions.back().end, [&](const PageRun& run) {
        for (std::uint64_t start = run.start; start < run.end;) {
            while (region != regions.end() && region->end <= start) ++region;
            if (region == regions.end() || region->start >= run.end)
                return;  // Mapped since the regions were read.
            start = std::max(start, region->start);
            const std::uint64_t end = std::min(run.end, region->end);
            add(run, static_cast<std::uint32_t>((end - start) / pageSize()), *region);
            start = end;
        }
    });
}

// The parts had the pages of the whole until now. Where lazily freed pages are is not known: heaps free like
// that, and are large.
void TaskSnapshot::_recountSplitRegions(PageTables& tables) {
    for (const SplitRegion& whole : _splitRegions) {
        const auto first = std::ranges::lower_bound(_regions, whole.start, {}, &SnapshotRegion::start);
        const auto last = std::ranges::lower_bound(_regions, whole.end, {}, &SnapshotRegion::start);
        const std::span<SnapshotRegion> parts(first, last);
        const std::uint32_t lazy = parts.front().pages.lazy;
        if (_countPages(tables, parts) != 0) continue;
        SnapshotRegion& largest = *std::ranges::max_element(parts, {}, &SnapshotRegion::size);
        largest.pages.lazy = std::min(lazy, largest.pages.anonymous);
    }
}

void TaskSnapshot::_readDetails(int processDirectory) {
    const auto text = readWholeFile("smaps", processDirectory);
    if (!text) return;
    auto region = _regions.begin();
    parseSmaps(*text, true, [&](const SmapsEntry& entry) {
        while (region != _regions.end() && region->start < entry.start) ++region;
        if (region == _regions.end() || region->start != entry.start || region->end != entry.end) return;
        region->isLocked = (entry.flags & SmapsEntry::kLocked) != 0;
        region->pages.lazy = std::min(pagesOfKibibytes(entry.lazyFree), region->pages.anonymous);
        if (entry.isShared)
            region->pages.fileDirty = pagesOfKibibytes(entry.sharedDirty + entry.privateDirty);
    });
}

bool TaskSnapshot::_noteFiles(int processDirectory) {
    bool isKnown = true;
    for (const SnapshotRegion& region : _regions) {
        const bool isOnDisk = region.record.external_pager != 0;
        if (region.fileId == 0 || !(isOnDisk ? !region.isPrivate : hasSharedPages(region.tag()))) continue;
        const bool isOpen =
            _services.sharedFiles.note(region.fileId, region.record.offset, region.size(), [&] {
                char path[64];
                if (isOnDisk && region.fileUse != FileUse::kMayBeRead) return FileDescriptor();
                std::snprintf(path, sizeof path, "map_files/%llx-%llx",
                              static_cast<unsigned long long>(region.start),
                              static_cast<unsigned long long>(region.end));
                return FileDescriptor(
                    openat(processDirectory, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
            });
        isKnown = isKnown && (isOpen || !isOnDisk || region.pages.file == 0);
    }
    return isKnown;
}

void TaskSnapshot::_notePages(PageTables& tables, const LineageUse& use) {
    if (use.lineages == nullptr || !tables.isOpen()) return;
    for (SnapshotRegion& region : _regions)
        if (region.hasOwnPages() && !isKernels(region)) _notePagesOf(region, tables, use);
}

// Reads the words of the private pages: one of each huge page, which says it all, and otherwise all of them.
void TaskSnapshot::_notePagesOf(SnapshotRegion& region, PageTables& tables, const LineageUse& use) {
    Lineages& lineages = *use.lineages;
    const Lineages::Member member = lineages.addMember();
    region.member = member + 1;
    RegionPages& pages = region.pages;
    pages.anonymous = pages.swapped = 0;
    const auto note = [&](std::uint64_t address, PageWord word, std::uint32_t count) {
        const std::uint64_t page = address / pageSize();
        if (word.isPresent() && !word.isFile()) {
            pages.anonymous += count;
            if (use.swapCache != nullptr && count == 1 && use.swapCache->holds(word.frame()))
                use.swapCache->noteFrame(member, page, word.frame());
            else if (word.isExclusive())
                region.exclusive += count;
            else
                lineages.holdFrames(member, use.seesFrames ? word.frame() : page, count);
        } else if (word.isSwapped()) {
            pages.swapped += count;
            lineages.holdSlot(member, use.seesFrames ? word.slot() : page);
            if (use.swapCache != nullptr) use.swapCache->noteSlot(page, word.slot());
        }
    };
    // Frames that follow each other are noted together.
    std::uint64_t firstFrame = 0;
    std::uint64_t frames = 0;
    const auto noteFrames = [&] {
        if (frames != 0) lineages.holdFrames(member, firstFrame, frames);
        frames = 0;
    };
    const bool isSimple = use.seesFrames && use.swapCache == nullptr;
    const auto noteWords = [&](std::uint64_t address, std::span<const std::uint64_t> words) {
        for (const std::uint64_t bits : words) {
            const PageWord word(bits);
            if (isSimple && word.isPresent() && !word.isFile()) {
                ++pages.anonymous;
                if (word.isExclusive()) {
                    ++region.exclusive;
                } else {
                    if (word.frame() != firstFrame + frames) noteFrames();
                    if (frames == 0) firstFrame = word.frame();
                    ++frames;
                }
            } else {
                note(address, word, 1);
            }
            address += pageSize();
        }
        noteFrames();
    };
    tables.forEachRun(region.start, region.end, [&](const PageRun& run) {
        if (run.isFile) return;
        if (!run.isHuge || !run.isPresent) {
            tables.forEachWord(run.start, run.end, noteWords);
            return;
        }
        for (std::uint64_t start = run.start; start < run.end;) {
            const std::uint64_t end = std::min(run.end, (start | (hugePageSize() - 1)) + 1);
            const auto count = static_cast<std::uint32_t>((end - start) / pageSize());
            tables.forEachWord(start, start + pageSize(), [&](std::uint64_t address, auto words) {
                if (PageWord(words[0]).isPresent()) note(address, PageWord(words[0]), count);
            });
            start = end;
        }
    });
}

void TaskSnapshot::_fillRecords() {
    for (SnapshotRegion& region : _regions) {
        RegionInfoRecord& record = region.record;
        RegionPages& pages = region.pages;
        if (region.isDevice && (region.tag() == Tag::kNone || record.external_pager != 0)) {
            record.user_tag = static_cast<std::uint32_t>(Tag::kDeviceMemory);
            record.external_pager = 0;
        }
        pages.lazy = std::min(pages.lazy, pages.anonymous);
        record.pages_resident = isKernels(region) ? pages.anonymous : pages.anonymous + pages.file;
        const bool isOnDisk = record.external_pager != 0;
        record.pages_dirtied = !isOnDisk          ? record.pages_resident
                               : region.isPrivate ? pages.anonymous - pages.lazy
                                                  : std::min(pages.fileDirty, pages.file);
        record.pages_reusable = pages.lazy;
        record.pages_swapped_out = pages.swapped + pages.fileSwapped;
        record.user_wired_count = region.isHuge || region.isLocked ? record.pages_resident : 0;
        const bool isEmpty = pages.anonymous + pages.file + record.pages_swapped_out == 0;
        if (!region.isPrivate)
            record.share_mode = kShareModeShared;
        else if (!region.path.isPresent())
            record.share_mode = isEmpty ? kShareModeEmpty : kShareModePrivate;
        else  // A mapping of a file in memory without a page of its own is the file's, like the shared ones.
            record.share_mode = !isOnDisk && !region.hasOwnPages() ? kShareModeShared : kShareModeCopyOnWrite;
    }
}

std::span<const SharedPages> TaskSnapshot::keep(std::span<const SharedPages> shared) {
    const std::vector<SharedPages>& kept = _shared.emplace_front(shared.begin(), shared.end());
    return kept;
}

KernReturn TaskSnapshot::queryPages(int processDirectory, std::uint64_t address, std::uint64_t count,
                                    std::int32_t* dispositions) const {
    std::fill_n(dispositions, count, 0);
    PageTables tables(processDirectory, _services.mayScan);
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
        if (region->tag() == Tag::kVsyscall) continue;
        const int error = tables.forEachRun(start, stop, [&](const PageRun& run) {
            const bool isExternal = run.isFile && region->record.external_pager != 0;
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
