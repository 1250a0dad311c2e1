#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstdint>
#include <vector>

#include "base/Name.h"
#include "model/ZBMemoryObject.h"

namespace zorbel {

/// One line of a report: a named group of memory objects, with the sums of their sizes in bytes.
class ZBMemoryCategory {
  public:
    ZBMemoryCategory(Name name, SegmentCode segment) : _name(name), _segment(segment) {}

    /// Adds an object with its current sizes; ignores an object that was added before. Fast if objects come
    /// in ascending order of ordinals.
    void addMemoryObject(ZBMemoryObject& object);

    [[nodiscard]] Name name() const { return _name; }
    [[nodiscard]] SegmentCode segment() const { return _segment; }
    /// In ascending order of ordinals; not owned.
    [[nodiscard]] const std::vector<ZBMemoryObject*>& memoryObjects() const { return _memoryObjects; }

    /// The sums and the number of regions.
    [[nodiscard]] const SizeTotals& totals() const { return _totals; }

    [[nodiscard]] std::uint64_t totalDirtySize() const { return _totals.sizes.dirty; }
    [[nodiscard]] std::uint64_t totalSwappedSize() const { return _totals.sizes.swapped; }
    [[nodiscard]] std::uint64_t totalCleanSize() const { return _totals.sizes.clean; }
    [[nodiscard]] std::uint64_t totalReclaimableSize() const { return _totals.sizes.reclaimable; }
    [[nodiscard]] std::uint64_t totalWiredSize() const { return _totals.sizes.wired; }

    /// Number of regions of all objects.
    [[nodiscard]] std::int32_t totalRegions() const {
        return static_cast<std::int32_t>(_totals.totalRegions);
    }

    /// Whether the first region is purgeable memory marked non-volatile; false without regions.
    [[nodiscard]] bool purgeableNonVolatile() const;

  private:
    Name _name;
    std::vector<ZBMemoryObject*> _memoryObjects;
    SizeTotals _totals;
    /// Regions that may be in several of the objects, and count once.
    boost::unordered_flat_set<const ZBMemoryRegion*> _regionsOfSeveral;
    SegmentCode _segment;
};

}  // namespace zorbel
