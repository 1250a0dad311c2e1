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

    /// Adds up the pages of lineages.
    void countLineages(const ReadTask& task) {
        for (const SnapshotRegion& region : task.snapshot->regions()) {
            if (region.member == 0) continue;
            Lineage& lineage = _lineages[lineageOf(region, task)];
            lineage.pages += task.lineages->sharedThrough(region.member - 1);
            lineage.lazy = std::max<std::uint64_t>(lineage.lazy, partOf(region, task).pages_reusable);
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
    static void shareAddressSpace(const ReadTask& first, const ReadTask& other) {
        for (SnapshotRegion& region : first.snapshot->regions()) {
            if (!region.isPrivate || isCommon(region)) continue;
            SharedPages own{region.objectId, region.pages.anonymous, region.pages.swapped, region.pages.lazy};
            std::vector<SharedPages> parts(region.shared.begin(), region.shared.end());
            for (const SharedPages& part : parts) {
                if (region.isOfMemoryFile() && &part == &parts.back()) continue;
                own.pages_resident -= std::min(own.pages_resident, part.pages_resident);
                own.pages_swapped_out -= std::min(own.pages_swapped_out, part.pages_swapped_out);
            }
            if (own.pages_resident + own.pages_swapped_out == 0) continue;
            own.object_pages_resident = own.pages_resident;
            own.pages_reusable = std::min(own.pages_reusable, own.pages_resident);
            own.object_pages_swapped_out = own.pages_swapped_out;
            own.object_pages_reusable = own.pages_reusable;
            parts.push_back(own);
            region.shared = first.snapshot->keep(parts);
        }
        other.snapshot->regions() = first.snapshot->regions();
        for (SnapshotRegion& region : other.snapshot->regions())
            if (!region.shared.empty()) region.shared = other.snapshot->keep(region.shared);
    }

  private:
    using LineageKey = std::pair<const Lineages*, Lineages::Member>;
    struct Lineage {
        HeldPages pages;
        std::uint64_t lazy = 0;
        std::uint32_t id = 0;
    };

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
        }
        _parts.push_back(part);
    }

    /// Pages of a region's file in its range, and in all ranges that are mapped.
    std::pair<std::optional<FilePages>, std::optional<FilePages>> pagesOfFile(const SnapshotRegion& region) {
        SharedFiles& files = _services.sharedFiles;
        return {files.pagesIn(region.fileId(), region.offset, region.size()), files.pagesOf(region.fileId())};
    }

    /// All pages of the file in the mapped ranges are charged, no matter which process has touched them.
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
        _parts.push_back({idOfFile(region.fileId()), resident, swapped, 0, total->cached, total->swapped, 0});
    }

    /// Dirty pages of a file on disk, also those that nobody here has touched.
    void addDirtyFile(SnapshotRegion& region) {
        const auto [inRegion, total] = pagesOfFile(region);
        if (!inRegion || !total) return;
        const auto dirty = pages32(std::min(inRegion->dirty, region.size() / pageSize()));
        region.pages.fileDirty = dirty;
        region.pages.file = std::max(region.pages.file, dirty);
        if (dirty != 0) _parts.push_back({region.objectId, dirty, 0, 0, total->dirty, 0, 0});
    }

    const SnapshotServices& _services;
    boost::unordered_flat_map<LineageKey, Lineage> _lineages;
    boost::unordered_flat_map<std::uint32_t, std::uint32_t> _fileIds;
    boost::container::small_vector<SharedPages, 2> _parts;
};

}  // namespace

void settle(std::vector<ReadTask>& tasks, const SnapshotServices& services) {
    Settlement settlement(services);
    for (const ReadTask& task : tasks)
        if (task.snapshot != nullptr && task.lineages != nullptr) settlement.countLineages(task);
    for (std::size_t i = 0; i < tasks.size(); ++i)
        if (tasks[i].snapshot != nullptr && tasks[i].firstOfAddressSpace == i) settlement.settle(tasks[i]);
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        const ReadTask& first = tasks[tasks[i].firstOfAddressSpace];
        if (tasks[i].firstOfAddressSpace == i || tasks[i].snapshot == nullptr) continue;
        if (first.snapshot != nullptr)
            Settlement::shareAddressSpace(first, tasks[i]);
        else
            settlement.settle(tasks[i]);  // The first one could not be read.
    }
}

}  // namespace zorbel
