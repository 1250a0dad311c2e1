#pragma once

#include <cstdint>
#include <vector>

#include "model/Name.h"
#include "model/ZBMemoryObject.h"

namespace zorbel {

/// One line of a report: a named group of memory objects with the sums of their sizes, in bytes.
class ZBMemoryCategory {
  public:
    ZBMemoryCategory(Name name, SegmentCode segment) : _name(name), _segment(segment) {}

    /// Adds an object with its sizes as they are now; an object that is already here is left out. Cheap for
    /// objects that come in ascending order of their ordinals.
    void addMemoryObject(ZBMemoryObject& object);

    [[nodiscard]] Name name() const { return _name; }
    [[nodiscard]] SegmentCode segment() const { return _segment; }
    /// In ascending order of their ordinals; not owned.
    [[nodiscard]] const std::vector<ZBMemoryObject*>& memoryObjects() const { return _memoryObjects; }

    [[nodiscard]] std::uint64_t totalDirtySize() const { return _totalDirtySize; }
    [[nodiscard]] std::uint64_t totalSwappedSize() const { return _totalSwappedSize; }
    [[nodiscard]] std::uint64_t totalCleanSize() const { return _totalCleanSize; }
    [[nodiscard]] std::uint64_t totalReclaimableSize() const { return _totalReclaimableSize; }
    [[nodiscard]] std::uint64_t totalWiredSize() const { return _totalWiredSize; }

    /// Number of regions of all its objects.
    [[nodiscard]] std::int32_t totalRegions() const { return _totalRegions; }

    /// Whether its first region is purgeable memory marked non-volatile; false without regions.
    [[nodiscard]] bool purgeableNonVolatile() const;

  private:
    Name _name;
    std::vector<ZBMemoryObject*> _memoryObjects;
    std::uint64_t _totalDirtySize = 0;
    std::uint64_t _totalSwappedSize = 0;
    std::uint64_t _totalCleanSize = 0;
    std::uint64_t _totalReclaimableSize = 0;
    std::uint64_t _totalWiredSize = 0;
    std::int32_t _totalRegions = 0;
    SegmentCode _segment;
};

}  // namespace zorbel
