#pragma once

#include <compare>
#include <cstdint>
#include <span>

#include "base/Assert.h"
#include "base/Name.h"
#include "model/ShareMode.h"
#include "model/SizeCounts.h"

namespace zorbel {

class ZBMemoryObject;

/// The kind of image segment that a region is part of. Reports use these numbers.
enum class SegmentCode : std::uint8_t {
    kUnspecified = 0,  ///< Not set, or a segment of another kind.
    kNotInImage = 1,
    kText = 2,      ///< "__TEXT"
    kData = 3,      ///< Name starts with "__DATA".
    kLinkedit = 4,  ///< "__LINKEDIT"
};

/// Tag of non-volatile purgeable memory that is charged to the process. No real tag has this value.
inline constexpr std::uint32_t kTagAllOnes = 0xFFFFFFFF;

/// A part of a region's sizes that counts for an object of its own, since other regions have it too.
struct SharedPart {
    std::uint64_t object_id = 0;  ///< 0 for pages that the region maps twice: they don't count a second time.
    SizeCounts sizes;             ///< Of the region's.
    SizeCounts objectSizes;       ///< Of the object, known to the page.
    ZBMemoryObject* memoryObject = nullptr;
};

/// A contiguous part of a target's address space: its place, what it maps, and the state of its pages.
///
/// Sizes and offsets are bytes; addresses are the target's. In a new region, all numbers are 0, all flags
/// false and both names absent. The worker that inspects the process fills the region. Afterwards it is only
/// read, except for the memory object, which the coordinator sets.
class ZBMemoryRegion {
  public:
    /// The object that the region belongs to; not owned.
    [[nodiscard]] ZBMemoryObject* memoryObject() const { return _memoryObject; }
    void setMemoryObject(ZBMemoryObject* object) { _memoryObject = object; }

    /// Category name.
    [[nodiscard]] Name name() const { return _name; }
    void setName(Name name) { _name = name; }

    /// Additional name for the region listing, such as the path of the mapped file; may be absent.
    [[nodiscard]] Name detailedName() const { return _detailedName; }
    void setDetailedName(Name name) { _detailedName = name; }

    /// Offset of the region's start in the memory that it maps.
    [[nodiscard]] std::uint64_t offset() const { return _offset; }
    void setOffset(std::uint64_t offset) { _offset = offset; }

    [[nodiscard]] std::uint64_t start() const { return _start; }
    void setStart(std::uint64_t start) { _start = start; }

    [[nodiscard]] std::uint64_t size() const { return _size; }
    void setSize(std::uint64_t size) { _size = size; }

    /// First address after the region. Changes with the start.
    [[nodiscard]] std::uint64_t end() const { return _start + _size; }
    /// Sets the size from the end. The start must be set before and not be above the end.
    void setEnd(std::uint64_t end) {
        ZB_ASSERT(end >= _start, "end >= self.start");
        _size = end - _start;
    }

    [[nodiscard]] SegmentCode segment() const { return _segment; }
    void setSegment(SegmentCode segment) { _segment = segment; }

    /// The five sizes below: what the process maps here.
    [[nodiscard]] const SizeCounts& sizes() const { return _sizes; }
    /// What of them counts for the region's own object.
    [[nodiscard]] SizeCounts ownSizes() const;

    /// What counts for objects of its own; lent by the process.
    [[nodiscard]] std::span<SharedPart> sharedParts() const { return _sharedParts; }
    void setSharedParts(std::span<SharedPart> parts) { _sharedParts = parts; }

    /// Resident dirty bytes charged to the region.
    [[nodiscard]] std::uint64_t dirtySize() const { return _sizes.dirty; }
    void setDirtySize(std::uint64_t size) { _sizes.dirty = size; }

    /// Bytes that the system may take back without writing them.
    [[nodiscard]] std::uint64_t reclaimableSize() const { return _sizes.reclaimable; }
    void setReclaimableSize(std::uint64_t size) { _sizes.reclaimable = size; }

    /// Compressed or swapped bytes.
    [[nodiscard]] std::uint64_t swappedSize() const { return _sizes.swapped; }
    void setSwappedSize(std::uint64_t size) { _sizes.swapped = size; }

    /// Resident clean bytes.
    [[nodiscard]] std::uint64_t cleanNonSpecSize() const { return _sizes.clean; }
    void setCleanNonSpecSize(std::uint64_t size) { _sizes.clean = size; }

    [[nodiscard]] std::uint64_t wiredSize() const { return _sizes.wired; }
    void setWiredSize(std::uint64_t size) { _sizes.wired = size; }

    /// Kind of memory, 0 to 255, or kTagAllOnes.
    [[nodiscard]] std::uint32_t user_tag() const { return _user_tag; }
    void setUser_tag(std::uint32_t tag) { _user_tag = tag; }

    /// Identifies the memory that the region maps; 0 for none.
    [[nodiscard]] std::uint64_t object_id() const { return _object_id; }
    void setObject_id(std::uint64_t id) { _object_id = id; }

    /// Share mode as reported by the platform.
    [[nodiscard]] std::uint8_t share_mode() const { return _share_mode; }
    void setShare_mode(std::uint8_t mode) { _share_mode = mode; }

    /// Whether the region is in the system's shared library cache.
    [[nodiscard]] bool inSharedCache() const { return _inSharedCache; }
    void setInSharedCache(bool value) { _inSharedCache = value; }

    /// Whether it is a part of that cache that no image of this process uses.
    [[nodiscard]] bool unusedSharedCacheRegion() const { return _unusedSharedCacheRegion; }
    void setUnusedSharedCacheRegion(bool value) { _unusedSharedCacheRegion = value; }

    /// Whether it is purgeable memory currently marked non-volatile.
    [[nodiscard]] bool purgeableNonVolatile() const { return _purgeableNonVolatile; }
    void setPurgeableNonVolatile(bool value) { _purgeableNonVolatile = value; }

    /// Order of the region listing: by start; if equal, the larger region first.
    [[nodiscard]] std::strong_ordering compare(const ZBMemoryRegion& other) const;

    /// Name of the kind of memory with this tag; absent for tag 0.
    static Name categoryNameForTag(std::uint32_t tag);

  private:
    ZBMemoryObject* _memoryObject = nullptr;
    std::span<SharedPart> _sharedParts;
    Name _name;
    Name _detailedName;
    std::uint64_t _offset = 0;
    std::uint64_t _start = 0;
    std::uint64_t _size = 0;
    SizeCounts _sizes;
    std::uint64_t _object_id = 0;
    std::uint32_t _user_tag = 0;
    SegmentCode _segment = SegmentCode::kUnspecified;
    std::uint8_t _share_mode = 0;
    bool _inSharedCache = false;
    bool _unusedSharedCacheRegion = false;
    bool _purgeableNonVolatile = false;
};

}  // namespace zorbel
