#include "model/ZBMemoryCategory.h"

#include <algorithm>
#include <functional>

namespace zorbel {

void ZBMemoryCategory::addMemoryObject(ZBMemoryObject& object) {
    const auto before = [](const ZBMemoryObject* a, const ZBMemoryObject* b) {
        return a->ordinal() != b->ordinal() ? a->ordinal() < b->ordinal() : std::less<>()(a, b);
    };
    const bool isLast = _memoryObjects.empty() || before(_memoryObjects.back(), &object);
    const auto place = isLast
                           ? _memoryObjects.end()
                           : std::lower_bound(_memoryObjects.begin(), _memoryObjects.end(), &object, before);
    if (place != _memoryObjects.end() && *place == &object) return;
    _memoryObjects.insert(place, &object);
    _totals.sizes += object.totalSizes();
    for (const ZBMemoryRegion* region : object.memoryRegions())
        if (region->sharedParts().empty() || _regionsOfSeveral.insert(region).second) ++_totals.totalRegions;
}

bool ZBMemoryCategory::purgeableNonVolatile() const {
    for (const ZBMemoryObject* object : _memoryObjects)
        if (!object->memoryRegions().empty()) return object->memoryRegions().front()->purgeableNonVolatile();
    return false;
}

}  // namespace zorbel
