// Which memory objects the regions belong to, and which processes share them.

#include <algorithm>
#include <functional>
#include <iterator>

#include "aggregate/ZBZorbel.h"

namespace zorbel {

namespace {

/// Whether the region's pages are no longer what they are a copy of, and so its process's own.
bool hasPagesOfItsOwn(const ZBMemoryRegion& region, const SizeCounts& own) {
    return region.share_mode() == kShareModeCopyOnWrite && own.charged() != 0;
}

/// The object that everything in a region counts for, where that is not one of its own; 0 otherwise.
std::uint64_t onlySharedObject(const ZBMemoryRegion& region, const SizeCounts& own) {
    if (own != SizeCounts()) return 0;
    for (const SharedPart& part : region.sharedParts())
        if (part.object_id != 0) return part.object_id;
    return 0;
}

}  // namespace

ZBZorbel::ObjectTable& ZBZorbel::ObjectTables::tableForRegion(const ZBProcess& process,
                                                              const ZBMemoryRegion& region) {
    if (region.inSharedCache())
        return process.is64bit() ? _sharedCache64MemoryObjects : _sharedCache32MemoryObjects;
    switch (region.segment()) {
        case SegmentCode::kText:
            return _textMemoryObjects;
        case SegmentCode::kLinkedit:
            return _linkeditMemoryObjects;
        default:
            return _memoryObjects;
    }
}

ZBMemoryObject& ZBZorbel::_newObject() { return _objects.emplace_back(_objects.size()); }

void ZBZorbel::_addProcess(ZBProcess& process) {
    ObjectTables ownTables;  // Of the objects that no other process can map.
    ObjectTable& sharedTable = _objectTables._memoryObjects;
    const auto objectAt = [this](ObjectTable& table, std::uint64_t key) {
        ZBMemoryObject*& known = table[key];
        if (known == nullptr) known = &_newObject();
        return known;
    };
    for (ZBMemoryRegion& region : process.memoryRegions()) {
        const SizeCounts own = region.ownSizes();
        const std::uint64_t key = region.inSharedCache() ? region.start() : region.object_id();
        const bool isOwn = hasPagesOfItsOwn(region, own);
        ZBMemoryObject* object = nullptr;
        if (const std::uint64_t shared = onlySharedObject(region, own))
            object = objectAt(sharedTable, shared);
        else if (key == 0 && !isOwn)
            object = &_newObject();
        else
            object = objectAt((isOwn ? ownTables : _objectTables).tableForRegion(process, region), key);
        object->addRegion(region, process.pageSize());
        region.setMemoryObject(object);
        for (SharedPart& part : region.sharedParts()) {
            if (part.object_id == 0) continue;
            // What is dirty of a file on disk is part of the file, whose clean pages the region maps as well.
            const bool isOfSame = part.object_id == region.object_id() && own != SizeCounts();
            part.memoryObject = isOfSame ? object : objectAt(sharedTable, part.object_id);
            part.memoryObject->addSharedPart(region, part, process.pageSize());
        }
    }
}

void ZBZorbel::_calculateSizes() {
    for (ZBMemoryObject& object : _objects) object.calculateSizes();
}

std::uint64_t ZBZorbel::_calculateZorbelForProcess(const ZBProcess& process) const {
    std::vector<const ZBMemoryObject*> objects;
    objects.reserve(process.memoryRegions().size());
    for (const ZBMemoryRegion& region : process.memoryRegions())
        forEachObject(region, [&](const ZBMemoryObject& object) { objects.push_back(&object); });
    std::sort(objects.begin(), objects.end(), std::less<>());
    objects.erase(std::unique(objects.begin(), objects.end()), objects.end());
    std::uint64_t zorbel = 0;
    for (const ZBMemoryObject* object : objects) zorbel += object->totalSizes().charged();
    return zorbel;
}

void ZBZorbel::_buildProcessToZorbelMap() {
    _processToZorbel.clear();
    for (const auto& process : _processes) _processToZorbel.push_back(_calculateZorbelForProcess(*process));
}

std::uint64_t ZBZorbel::_zorbelOf(const ZBProcess& process) const {
    return process.ordinal() < _processToZorbel.size() ? _processToZorbel[process.ordinal()] : 0;
}

ZBZorbelSharingData ZBZorbel::_sharingData() {
    // For each region of each object, the process that maps it, object by object. First counts the regions to
    // get each object's place, then fills the places.
    std::vector<std::size_t> places;
    places.reserve(_objects.size());
    std::size_t count = 0;
    for (const ZBMemoryObject& object : _objects) {
        places.push_back(count);
        count += object.memoryRegions().size();
    }
    std::vector<const ZBProcess*> mappers(count);
    for (const auto& process : _processes)
        for (const ZBMemoryRegion& region : process->memoryRegions())
            forEachObject(region, [&](const ZBMemoryObject& object) {
                mappers[places[object.ordinal()]++] = process.get();
            });

    ZBZorbelSharingData data;
    auto first = mappers.begin();
    for (ZBMemoryObject& object : _objects) {
        const auto last = first + static_cast<std::ptrdiff_t>(object.memoryRegions().size());
        std::vector<const ZBProcess*> members;
        std::unique_copy(first, last,
                         std::back_inserter(members));  // Ascending, because of the outer loop above.
        data.addObject(ProcessGroup(std::move(members)), object);
        first = last;
    }
    return data;
}

}  // namespace zorbel
