// Named groups of memory with their totals, in the order of the report.

#include <algorithm>

#include "aggregate/ZBZorbel.h"

namespace zorbel {

namespace {

/// Most dirty and swapped bytes of a category that is merged into "Other": 1 MiB.
constexpr std::uint64_t kOtherThreshold = 0x100000;

std::uint64_t chargedSize(const ZBMemoryCategory& category) { return category.totals().sizes.charged(); }

bool isImageSegment(const ZBMemoryCategory& category) {
    return category.segment() == SegmentCode::kText || category.segment() == SegmentCode::kData ||
           category.segment() == SegmentCode::kLinkedit;
}

bool foldsIntoOther(const ZBMemoryCategory& category) {
    return (isImageSegment(category) || chargedSize(category) == 0) &&
           chargedSize(category) <= kOtherThreshold &&
           (!category.purgeableNonVolatile() || category.totalCleanSize() == 0);
}

ZBMemoryCategory& categoryNamed(Categories& categories, Name name, SegmentCode segment) {
    std::shared_ptr<ZBMemoryCategory>& category = categories[name];
    if (!category) category = std::make_shared<ZBMemoryCategory>(name, segment);
    return *category;
}

}  // namespace

Categories ZBZorbel::_categoriesForObjects(const std::vector<ZBMemoryObject*>& objects) {
    Categories categories;
    for (ZBMemoryObject* object : objects)
        categoryNamed(categories, object->name(), object->memoryRegions().front()->segment())
            .addMemoryObject(*object);
    return categories;
}

Categories ZBZorbel::_categoriesForAllProcesses() const {
    Categories categories;
    std::vector<bool> seen(_objects.size());
    for (const auto& process : _processes)
        for (const ZBMemoryRegion& region : process->memoryRegions())
            forEachObject(region, [&](ZBMemoryObject& object) {
                if (seen[object.ordinal()]) return;
                seen[object.ordinal()] = true;
                categoryNamed(categories, region.name(), region.segment()).addMemoryObject(object);
            });
    return categories;
}

Categories ZBZorbel::_summarizedCategoriesForCategories(const Categories& categories, bool summarize,
                                                        SizeTotals& outTotal) {
    static const Name kOther("Other");
    outTotal = {};
    Categories kept;
    std::vector<ZBMemoryObject*> folded;
    for (const auto& [name, category] : categories) {
        if (summarize && foldsIntoOther(*category))
            folded.insert(folded.end(), category->memoryObjects().begin(), category->memoryObjects().end());
        else
            kept[name] = category;
        outTotal += category->totals();
    }
    if (folded.empty()) return kept;
    std::sort(folded.begin(), folded.end(),
              [](const auto* a, const auto* b) { return a->ordinal() < b->ordinal(); });
    const auto other = std::make_shared<ZBMemoryCategory>(kOther, SegmentCode::kNotInImage);
    for (ZBMemoryObject* object : folded) other->addMemoryObject(*object);
    kept[kOther] = other;
    return kept;
}

std::vector<Name> ZBZorbel::_sortedKeysForCategories(const Categories& categories) {
    std::vector<const ZBMemoryCategory*> sorted;
    sorted.reserve(categories.size());
    for (const auto& [name, category] : categories) sorted.push_back(category.get());
    std::sort(sorted.begin(), sorted.end(), [](const ZBMemoryCategory* a, const ZBMemoryCategory* b) {
        if (chargedSize(*a) != chargedSize(*b)) return chargedSize(*a) > chargedSize(*b);
        if (a->totalReclaimableSize() != b->totalReclaimableSize())
            return a->totalReclaimableSize() > b->totalReclaimableSize();
        if (a->totalCleanSize() != b->totalCleanSize()) return a->totalCleanSize() > b->totalCleanSize();
        return NameTextLess()(a->name(), b->name());
    });
    std::vector<Name> names;
    names.reserve(sorted.size());
    for (const ZBMemoryCategory* category : sorted) names.push_back(category->name());
    return names;
}

std::vector<const ZBProcess*> ZBZorbel::_getProcessListSortedByZorbel() const {
    std::vector<const ZBProcess*> sorted;
    sorted.reserve(_processes.size());
    for (const auto& process : _processes) sorted.push_back(process.get());
    std::stable_sort(sorted.begin(), sorted.end(), [this](const ZBProcess* a, const ZBProcess* b) {
        const std::uint64_t zorbelOfA = _zorbelOf(*a);
        const std::uint64_t zorbelOfB = _zorbelOf(*b);
        return zorbelOfA != zorbelOfB ? zorbelOfA > zorbelOfB : a->pid() > b->pid();
    });
    return sorted;
}

}  // namespace zorbel
