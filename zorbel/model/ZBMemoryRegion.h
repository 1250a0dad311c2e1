#pragma once

#include <compare>
#include <cstdint>

#include "base/Assert.h"
#include "base/Name.h"
#include "model/ShareMode.h"
#include "model/SizeCounts.h"

namespace zorbel {

class ZBMemoryObject;

/// What a region is within an image. The numbers are those of the reports.
enum class SegmentCode : std::uint8_t {
    kUnspecified = 0,  ///< Never set, or an image segment of another kind.
    kNotInImage = 1,
    kText = 2,      ///< "__TEXT".
    kData = 3,      ///< A segment whose name begins with "__DATA".
    kLinkedit = 4,  ///< "__LINKEDIT".
};

/// Tag of non-volatile purgeable memory that is charged to the process; no real tag has this value.
inline constexpr std::uint32_t kTagAllOnes = 0xFFFFFFFF;

/// One contiguous stretch of a target's address space: where it lies, what it maps and how its pages are
/// disposed.
///
/// Sizes and offsets are bytes, addresses are the target's. A new region has every number 0, every flag false
/// and both names absent. The worker that inspects a process fills its regions; they are only read
/// afterwards, save for the memory object, which the coordinator sets.
class ZBMemoryRegion {
  public:
    /// The object that the region was folded into; not owned.
    [[nodiscard]] ZBMemoryObject* memoryObject() const { return _memoryObject; }
    void setMemoryObject(ZBMemoryObject* object) { _memoryObject = object; }

    /// Category name.
    [[nodiscard]] Name name() const { return _name; }
    void setName(Name name) { _name = name; }

    /// Finer name for the region listing, such as the path of the mapped file; may be absent.
    [[nodiscard]] Name detailedName() const { return _detailedName; }
    void setDetailedName(Name name) { _detailedName = name; }

    /// Offset of the region's start within the memory that it maps.
    [[nodiscard]] std::uint64_t offset() const { return _offset; }
    void setOffset(std::uint64_t offset) { _offset = offset; }

    [[nodiscard]] std::uint64_t start() const { return _start; }
    void setStart(std::uint64_t start) { _start = start; }

    [[nodiscard]] std::uint64_t size() const { return _size; }
    void setSize(std::uint64_t size) { _size = size; }

    /// First address after the region; moves with the start.
    [[nodiscard]] std::uint64_t end() const { return _start + _size; }
    /// Sets the size from an end that is not below the start, which must have been set before.
    void setEnd(std::uint64_t end) {
        ZB_ASSERT(end >= _start, "end >= self.start");
        _size = end - _start;
    }

    [[nodiscard]] SegmentCode segment() const { return _segment; }
    void setSegment(SegmentCode segment) { _segment = segment; }

    /// The five sizes below.
    [[nodiscard]] const SizeCounts& sizes() const { return _sizes; }

    /// Resident dirty bytes charged to the region.
    [[nodiscard]] std::uint64_t dirtySize() const { return _sizes.dirty; }
    void setDirtySize(std::uint64_t size) { _sizes.dirty = size; }

    /// Bytes that the system may take back without writing them anywhere.
    [[nodiscard]] std::uint64_t reclaimableSize() const { return _sizes.reclaimable; }
    void setReclaimableSize(std::uint64_t size) { _sizes.reclaimable = size; }

    /// Bytes held compressed or swapped out.
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

    /// Identity of the memory that the region maps; 0 means that it has none.
    [[nodiscard]] std::uint64_t object_id() const { return _object_id; }
    void setObject_id(std::uint64_t id) { _object_id = id; }

    /// The share mode as the platform reported it.
    [[nodiscard]] std::uint8_t share_mode() const { return _share_mode; }
    void setShare_mode(std::uint8_t mode) { _share_mode = mode; }

    /// Whether the region lies in the system's shared library cache.
    [[nodiscard]] bool inSharedCache() const { return _inSharedCache; }
    void setInSharedCache(bool value) { _inSharedCache = value; }

    /// Whether it is a stretch of that cache which no image of this process uses.
    [[nodiscard]] bool unusedSharedCacheRegion() const { return _unusedSharedCacheRegion; }
    void setUnusedSharedCacheRegion(bool value) { _unusedSharedCacheRegion = value; }

    /// Whether it is purgeable memory that is marked non-volatile at present.
    [[nodiscard]] bool purgeableNonVolatile() const { return _purgeableNonVolatile; }
    void setPurgeableNonVolatile(bool value) { _purgeableNonVolatile = value; }

    /// Order of the region listing: by start, of equal starts the larger region first.
    [[nodiscard]] std::strong_ordering compare(const ZBMemoryRegion& other) const;

    /// Name of the kind of memory that a tag stands for; absent for tag 0.
    static Name categoryNameForTag(std::uint32_t tag);

  private:
    ZBMemoryObject* _memoryObject = nullptr;
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
