#include "linux/Settlement.h"

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <utility>

#include "linux/process/PageSize.h"

namespace zorbel {

namespace {

std::uint32_t pages32(std::uint64_t pages) { return static_cast<std::uint32_t>(pages); }

/// The settling of one run.
class Settlement {
  public:
    explicit Settlement(const SnapshotServices& services) : _services(services) {}

    /// Adds up the pages of lineages, and notes what is locked.
    void survey(const ReadTask& task) {
        for (const SnapshotRegion& region : task.snapshot->regions()) {
            if (region.isLocked && region.fileId() != 0)
                _lockedRanges[region.fileId()].push_back({region.offset, region.offset + region.size()});
            if (region.member == 0) continue;
            const SharedPages part = partOf(region, task);
            Lineage& lineage = _lineages[lineageOf(region, task)];
            lineage.pages += task.lineages->sharedThrough(region.member - 1);
            lineage.lazy = std::max<std::uint64_t>(lineage.lazy, part.pages_reusable);
            if (region.isLocked || region.isHuge)
                lineage.wired = std::max<std::uint64_t>(lineage.wired, part.pages_resident);
        }
    }

    void settle(const ReadTask& task) {
        for (SnapshotRegion& region : task.snapshot->regions()) {
            _parts.clear();
            const bool isFileItself = region.fileId() != 0 && !region.hasOwnPages();
            region.objectId = isFileItself ? idOfFile(region.fileId()) : _services.objectIds.newId();
            if (region.member != 0) addLineage(region, task);
            if (region.isOfMemoryFile()) addMemoryFile(region);
            if (region.fileId() != 0 && !region.isPrivate && region.hasStorage) addDirtyFile(region);
            if (!_parts.empty()) region.shared = task.snapshot->keep(_parts);
        }
    }

    /// Two tasks with one address space: all that is private becomes common to both.
    void shareAddressSpace(const ReadTask& first, const ReadTask& other) {
        for (SnapshotRegion& region : first.snapshot->regions()) {
            if (!region.isPrivate || isCommon(region)) continue;
            SharedPages own{region.objectId, region.pages.anonymous, region.pages.swapped, region.pages.lazy};
            std::vector<SharedPages> parts(region.shared.begin(), region.shared.end());
            for (const SharedPages& part : parts) {
                if (region.fileId() != 0 && part.object_id == idOfFile(region.fileId())) continue;
                own.pages_resident -= std::min(own.pages_resident, part.pages_resident);
                own.pages_swapped_out -= std::min(own.pages_swapped_out, part.pages_swapped_out);
            }
            if (own.pages_resident + own.pages_swapped_out == 0) continue;
            own.object_pages_resident = own.pages_resident;
            own.pages_reusable = std::min(own.pages_reusable, own.pages_resident);
            own.object_pages_swapped_out = own.pages_swapped_out;
            own.object_pages_reusable = own.pages_reusable;
            own.object_pages_wired = region.isLocked || region.isHuge ? own.pages_resident : 0;
            parts.push_back(own);
            region.shared = first.snapshot->keep(parts);
        }
        other.snapshot->takeRegionsOf(*first.snapshot);
    }

  private:
    using LineageKey = std::pair<const Lineages*, Lineages::Member>;
    struct Lineage {
        HeldPages pages;
        std::uint64_t lazy = 0;   // The most that a member has: which pages they are is not known.
        std::uint64_t wired = 0;  // Likewise; a lock is not inherited, so mostly one member has one.
        std::uint32_t id = 0;
    };
    using Range = std::pair<std::uint64_t, std::uint64_t>;

    static bool isCommon(const SnapshotRegion& region) {
        return std::ranges::any_of(
            region.shared, [&](const SharedPages& part) { return part.object_id == region.objectId; });
    }

    static LineageKey lineageOf(const SnapshotRegion& region, const ReadTask& task) {
        return {task.lineages, task.lineages->lineageOf(region.member - 1)};
    }

    std::uint32_t idOfFile(std::uint32_t number) {
        std::uint32_t& id = _fileIds[number];
        if (id == 0) id = _services.objectIds.newId();
        return id;
    }

    /// What a region has in common with others of its lineage. Which of its pages are lazily freed is not
    /// known: those that can't be its own.
    static SharedPages partOf(const SnapshotRegion& region, const ReadTask& task) {
        const HeldPages alone = task.lineages->aloneIn(region.member - 1);
        const std::uint32_t own = region.exclusive + pages32(alone.resident);
        SharedPages part;
        part.pages_resident = region.pages.anonymous - std::min(own, region.pages.anonymous);
        part.pages_swapped_out =
            region.pages.swapped - std::min(pages32(alone.swapped), region.pages.swapped);
        part.pages_reusable = region.pages.lazy - std::min(own, region.pages.lazy);
        return part;
    }

    void addLineage(SnapshotRegion& region, const ReadTask& task) {
        SharedPages part = partOf(region, task);
        if (part.pages_resident + part.pages_swapped_out == 0) return;
        Lineage& lineage = _lineages[lineageOf(region, task)];
        if (lineage.pages.sum() != 0) {
            if (lineage.id == 0) lineage.id = _services.objectIds.newId();
            part.object_id = lineage.id;
            part.object_pages_resident = lineage.pages.resident;
            part.object_pages_swapped_out = lineage.pages.swapped;
            part.object_pages_reusable = std::min(lineage.lazy, lineage.pages.resident);
            part.object_pages_wired = std::min(lineage.wired, lineage.pages.resident);
        }
        _parts.push_back(part);
    }

    /// Pages of a region's file in its range, and in all ranges that are mapped.
    std::pair<std::optional<FilePages>, std::optional<FilePages>> pagesOfFile(const SnapshotRegion& region) {
        SharedFiles& files = _services.sharedFiles;
        return {files.pagesIn(region.fileId(), region.offset, region.size(), region.pages.fileSwapped),
                files.pagesOf(region.fileId())};
    }

    /// Pages of a file in the ranges that any task has locked.
    std::uint64_t lockedPagesOf(std::uint32_t fileId, std::uint64_t FilePages::*kind) {
        const auto found = _lockedRanges.find(fileId);
        if (found == _lockedRanges.end()) return 0;
        std::vector<Range>& ranges = found->second;
        std::ranges::sort(ranges);
        std::uint64_t locked = 0;
        std::uint64_t end = 0;
        for (const Range& range : ranges) {
            const std::uint64_t start = std::max(range.first, end);
            end = std::max(end, range.second);
            if (start >= end) continue;
            if (const auto pages = _services.sharedFiles.pagesIn(fileId, start, end - start, 0))
                locked += (*pages).*kind;
        }
        return locked;
    }

    /// All pages of the file in the mapped ranges are charged, no matter which process has touched them;
    /// where only touched ones are known, these.
    void addMemoryFile(SnapshotRegion& region) {
        const auto [inRegion, total] = pagesOfFile(region);
        if (!inRegion || !total) return;
        // A private copy hides the page of the file that it was made of.
        const std::uint64_t own = std::uint64_t{region.pages.anonymous} + region.pages.swapped;
        const std::uint64_t room = region.size() / pageSize() - std::min(own, region.size() / pageSize());
        const auto resident = pages32(std::min(inRegion->cached, room));
        const auto swapped = pages32(std::min(inRegion->swapped, room - resident));
        region.pages.file = resident;
        region.pages.fileSwapped = swapped;
        if (total->cached + total->swapped == 0) return;
        const std::uint64_t locked =
            region.isHuge ? total->cached : lockedPagesOf(region.fileId(), &FilePages::cached);
        _parts.push_back(
            {idOfFile(region.fileId()), resident, swapped, 0, total->cached, total->swapped, 0, locked});
    }

    /// Dirty pages of a file on disk, also those that nobody here has touched.
    void addDirtyFile(SnapshotRegion& region) {
        const auto [inRegion, total] = pagesOfFile(region);
        if (!inRegion || !total) return;
        const auto dirty = pages32(std::min(inRegion->dirty, region.size() / pageSize()));
        region.pages.fileDirty = dirty;
        region.pages.file = std::max(region.pages.file, dirty);
        if (dirty != 0)
            _parts.push_back({region.objectId, dirty, 0, 0, total->dirty, 0, 0,
                              lockedPagesOf(region.fileId(), &FilePages::dirty)});
    }

    const SnapshotServices& _services;
    boost::unordered_flat_map<LineageKey, Lineage> _lineages;
    boost::unordered_flat_map<std::uint32_t, std::uint32_t> _fileIds;
    boost::unordered_flat_map<std::uint32_t, std::vector<Range>> _lockedRanges;  // Of files, by number.
    boost::container::small_vector<SharedPages, 2> _parts;
};

/// Whether all of its address space was read.
bool isWhole(const ReadTask& task) {
    return task.snapshot != nullptr && !task.snapshot->regions().empty() &&
           task.snapshot->codeAtEnd() == kKernInvalidAddress;
}

/// Whether two tasks had one address space when they were read. A child of vfork() may have called exec since
/// they were compared: its stack is somewhere else now.
bool hadSameStack(const ReadTask& a, const ReadTask& b) {
    const auto endOfStack = [start = a.stackStart](const ReadTask& task) {
        const SnapshotRegion* region = task.snapshot->regionAtOrAfter(start);
        return region != nullptr ? region->end : 0;
    };
    return a.snapshot == nullptr || b.snapshot == nullptr || endOfStack(a) == endOfStack(b);
}

/// For each task, the one whose regions stand for its address space: the first one of it that was read as a
/// whole, since any of them may have ended meanwhile. The task itself if there is none.
std::vector<std::size_t> tasksThatStandForAll(const std::vector<ReadTask>& tasks) {
    std::vector<std::size_t> whole(tasks.size(), tasks.size());  // By the first task of the address space.
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        std::size_t& found = whole[tasks[i].firstOfAddressSpace];
        if (found == tasks.size() && isWhole(tasks[i])) found = i;
    }
    std::vector<std::size_t> standing(tasks.size());
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        const std::size_t found = whole[tasks[i].firstOfAddressSpace];
        standing[i] = found == tasks.size() || !hadSameStack(tasks[found], tasks[i]) ? i : found;
    }
    return standing;
}

}  // namespace

void settle(std::vector<ReadTask>& tasks, const SnapshotServices& services) {
    Settlement settlement(services);
    for (const ReadTask& task : tasks)
        if (task.snapshot != nullptr) settlement.survey(task);
    const std::vector<std::size_t> standing = tasksThatStandForAll(tasks);
    for (std::size_t i = 0; i < tasks.size(); ++i)
        if (tasks[i].snapshot != nullptr && standing[i] == i) settlement.settle(tasks[i]);
    for (std::size_t i = 0; i < tasks.size(); ++i)
        if (standing[i] != i && tasks[i].snapshot != nullptr && !tasks[i].snapshot->regions().empty())
            settlement.shareAddressSpace(tasks[standing[i]], tasks[i]);
}

std::uint64_t mappedKernelPages(const std::vector<ReadTask>& tasks) {
    boost::unordered_flat_map<std::uint32_t, std::uint32_t> maps;  // By object id.
    for (const ReadTask& task : tasks) {
        if (task.snapshot == nullptr) continue;
        for (const SnapshotRegion& region : task.snapshot->regions()) {
            if (region.tag != Tag::kBpfMap) continue;
            std::uint32_t& pages = maps[region.objectId];
            pages = std::max(pages, region.pages.file);
        }
    }
    std::uint64_t sum = 0;
    for (const auto& [id, pages] : maps) sum += pages;
    return sum;
}

}  // namespace zorbel
