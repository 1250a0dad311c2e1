// The sequence of calls to each formatter.

#include <algorithm>
#include <compare>
#include <unordered_map>

#include "aggregate/ZBZorbel.h"
#include "report/ZBOutputFormatter.h"

namespace zorbel {

/// What is printed for one group.
struct ZBZorbel::GroupSummary {
    GroupSummary(const std::vector<ZBMemoryObject*>& objects, bool summarize)
        : categories(_summarizedCategoriesForCategories(_categoriesForObjects(objects), summarize, total)),
          sortedKeys(_sortedKeysForCategories(categories)) {}

    [[nodiscard]] std::uint64_t chargedSize() const { return total.sizes.charged(); }

    SizeTotals total;
    Categories categories;
    std::vector<Name> sortedKeys;
};

/// The summaries of all groups. A group is printed for each of its members but computed only once.
class ZBZorbel::GroupSummaries {
  public:
    struct Entry {
        const ProcessGroup* group;
        const GroupSummary* summary;
    };

    GroupSummaries(const ZBZorbelSharingData& sharing, bool summarize) : _sharing(sharing) {
        for (const auto& [group, objects] : sharing.processGroupToObjects())
            _summaries.try_emplace(&group, objects, summarize);
    }

    /// The groups of a process: first the one with only itself, then by descending dirty + swapped size, then
    /// by members.
    [[nodiscard]] std::vector<Entry> groupsOf(const ZBProcess& process) const {
        std::vector<Entry> entries;
        const auto found = _sharing.processToProcessGroups().find(process.ordinal());
        if (found == _sharing.processToProcessGroups().end()) return entries;
        for (const ProcessGroup* group : found->second) entries.push_back({group, &_summaries.at(group)});
        std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
            const bool aIsAlone = a.group->size() == 1;
            const bool bIsAlone = b.group->size() == 1;
            if (aIsAlone != bIsAlone) return aIsAlone;
            if (a.summary->chargedSize() != b.summary->chargedSize())
                return a.summary->chargedSize() > b.summary->chargedSize();
            return *a.group < *b.group;
        });
        return entries;
    }

  private:
    const ZBZorbelSharingData& _sharing;
    std::unordered_map<const ProcessGroup*, GroupSummary> _summaries;
};

void ZBZorbel::_printProcess(const ZBProcess& process, const GroupSummaries& summaries) {
    for (const auto& formatter : _outputFormatters) {
        formatter->printProcessHeader(process);
        if (process.errors().empty()) formatter->printProcessTotal(_zorbelOf(process), process);
        formatter->endProcessHeader(process);
    }
    if (!process.errors().empty()) return;
    for (const auto& [group, summary] : summaries.groupsOf(process))
        for (const auto& formatter : _outputFormatters) {
            if (group->size() == 1)
                formatter->printProcessCategories(summary->categories, summary->sortedKeys, summary->total);
            else
                formatter->printSharedCategories(summary->categories, summary->sortedKeys, *group, process,
                                                 summary->total);
        }
    const auto auxData = process.auxData();
    for (const auto& formatter : _outputFormatters) formatter->printProcessAuxData(auxData.get());
}

void ZBZorbel::printLattixLikeOutputForProcesses(const std::vector<const ZBProcess*>& processes) {
    for (const ZBProcess* process : processes) {
        std::vector<const ZBMemoryRegion*> regions;
        regions.reserve(process->memoryRegions().size());
        for (const ZBMemoryRegion& region : process->memoryRegions()) regions.push_back(&region);
        std::stable_sort(regions.begin(), regions.end(),
                         [](const auto* a, const auto* b) { return std::is_lt(a->compare(*b)); });
        for (const auto& formatter : _outputFormatters)
            formatter->printLattixLikeOutputForProcess(*process, regions);
    }
}

void ZBZorbel::printOutputVerbose(bool verbose, bool summarize) {
    std::vector<const ZBProcess*> withWarnings;
    std::vector<const ZBProcess*> withErrors;
    std::shared_ptr<const ZBAuxDataDictionary> globalAuxData;

    const std::vector<const ZBProcess*> processes = _getProcessListSortedByZorbel();
    if (verbose) printLattixLikeOutputForProcesses(processes);
    const ZBZorbelSharingData sharing = _sharingData();
    const GroupSummaries summaries(sharing, summarize);
    for (const ZBProcess* process : processes) {
        if (!process->warnings().empty()) withWarnings.push_back(process);
        if (!process->errors().empty())
            withErrors.push_back(process);
        else if (const auto auxData = process->auxData())
            globalAuxData = auxData->mergeWithData(globalAuxData.get());
        _printProcess(*process, summaries);
    }

    SizeTotals total;
    const Categories categories =
        _summarizedCategoriesForCategories(_categoriesForAllProcesses(), summarize, total);
    const std::vector<Name> sortedKeys = _sortedKeysForCategories(categories);
    const std::vector<std::string>& globalErrors = ZBProcess::globalErrors();
    const bool hadErrors = !globalErrors.empty() || !withErrors.empty();
    for (const auto& formatter : _outputFormatters)
        formatter->printProcessesWithWarnings(withWarnings, withErrors, globalErrors);
    for (const auto& formatter : _outputFormatters) {
        formatter->printSummaryCategories(categories, sortedKeys, total, hadErrors);
        formatter->printGlobalAuxData(globalAuxData.get());
        formatter->end();
    }
}

}  // namespace zorbel
