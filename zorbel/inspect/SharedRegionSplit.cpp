#include "inspect/SharedRegionSplit.h"

#include <algorithm>
#include <limits>

namespace zorbel {

namespace {

/// Alignment of image segments inside the shared region, in bytes.
constexpr std::uint64_t kAlignment = 4096;

/// Alignments are powers of two.
constexpr bool isAligned(std::uint64_t value, std::uint64_t alignment) {
    return (value & (alignment - 1)) == 0;
}
constexpr std::uint64_t alignedDown(std::uint64_t value, std::uint64_t alignment) {
    return value & ~(alignment - 1);
}
/// Bytes up to the next multiple.
constexpr std::uint64_t padding(std::uint64_t value, std::uint64_t alignment) {
    return (0 - value) & (alignment - 1);
}

/// Resident memory without a file is always dirty: it can't be read again from anywhere.
constexpr bool isDirty(std::int32_t disposition) {
    return (disposition & kPageQueryDirty) != 0 ||
           (disposition & (kPageQueryPresent | kPageQueryExternal)) == kPageQueryPresent;
}

}  // namespace

ZBMemoryRegion regionOfRecord(std::uint64_t start, std::uint64_t size, const RegionInfoRecord& record) {
    ZBMemoryRegion region;
    region.setStart(start);
    region.setSize(size);
    region.setUser_tag(record.user_tag);
    region.setObject_id(record.object_id);
    region.setShare_mode(record.share_mode);
    region.setOffset(record.offset);
    return region;
}

bool SharedRegionSplit::addRegions(std::uint64_t start, std::uint64_t size, std::uint64_t pageSize,
                                   const RegionInfoRecord& record, ZBImageEnumerator& images,
                                   const Populate& populate) {
    const std::uint64_t end = start + std::min(size, std::numeric_limits<std::uint64_t>::max() - start);
    const auto pieceOf = [&](std::uint64_t from, std::uint64_t pieceEnd) {
        ZBMemoryRegion piece = regionOfRecord(from, pieceEnd - from, record);
        piece.setOffset(record.offset + (from - start));
        piece.setInSharedCache(true);
        return piece;
    };
    const ZBImage* image = images.nextImageForStart(start, end);
    std::uint64_t current = start;
    while (current < end) {
        if (image == nullptr || current < image->start()) {
            const std::uint64_t pieceEnd = image != nullptr ? std::min(end, image->start()) : end;
            if (!_addUnusedPiece(pieceOf(current, pieceEnd), pageSize, record, populate)) return false;
            current = pieceEnd;
        } else if (image->end() <= current) {
            // The previous image already has these bytes.
            image = images.nextImageForStart(current, end);
        } else {
            std::uint64_t pieceEnd = std::min(image->end(), end);
            const ZBImage* next = images.nextImageForStart(pieceEnd, end);
            // If this image and the next both begin on a page boundary, the rest of the last page is padding
            // and belongs to this one.
            if (isAligned(current, kAlignment) && isAligned(next != nullptr ? next->start() : 0, kAlignment))
                pieceEnd += std::min(padding(pieceEnd, kAlignment), end - pieceEnd);
            if (!_addImagePiece(pieceOf(current, pieceEnd), pageSize, *image, record, populate)) return false;
            current = pieceEnd;
            image = next;
        }
    }
    return true;
}

// No process is charged for pages that no image uses, except for its part of a page shared with an image.
bool SharedRegionSplit::_addUnusedPiece(ZBMemoryRegion piece, std::uint64_t pageSize,
                                        const RegionInfoRecord& record, const Populate& populate) {
    static const Name kUnused("unused varnel shared cache area");
    piece.setName(kUnused);
    piece.setUnusedSharedCacheRegion(true);
    const bool sharesPages = !isAligned(piece.start(), pageSize) || !isAligned(piece.end(), pageSize);
    if (sharesPages && !populate(piece, record)) return false;
    _regions.push_back(piece);
    return true;
}

// Text and link-edit data are never written, so nobody is charged. The link-edit data of all images is one
// block, so it has one name.
bool SharedRegionSplit::_addImagePiece(ZBMemoryRegion piece, std::uint64_t pageSize, const ZBImage& image,
                                       const RegionInfoRecord& record, const Populate& populate) {
    static const Name kLinkedit("__LINKEDIT varnel shared cache");
    const bool isLinkedit = image.segment() == SegmentCode::kLinkedit;
    piece.setName(isLinkedit ? kLinkedit : image.nameOfRegions());
    piece.setSegment(image.segment());
    const bool isCharged = !isLinkedit && image.segment() != SegmentCode::kText;
    if (isCharged && !populate(piece, record)) return false;
    piece.setWiredSize(std::min(pageSize * record.user_wired_count, piece.dirtySize()));
    _regions.push_back(piece);
    return true;
}

bool SharedRegionSplit::populateWithPageQueries(ZBMemoryRegion& piece, std::uint64_t pageSize,
                                                const QueryPages& query) {
    ZB_ASSERT(piece.dirtySize() == 0, "memoryRegion.dirtySize == 0");
    ZB_ASSERT(piece.swappedSize() == 0, "memoryRegion.swappedSize == 0");
    const std::uint64_t page = pageSize;
    const std::uint64_t first = alignedDown(piece.start(), page);
    const std::uint64_t end = piece.end() + padding(piece.end(), page);
    const std::uint64_t last = end - page;
    std::uint64_t count = (end - first) / page;
    const std::uint64_t cached = count != 0 && _cachedDispositionAddress == first ? 1 : 0;

    std::optional<std::size_t> pending;
    if (piece.unusedSharedCacheRegion()) {
        if (count >= 2 && end != piece.end()) pending = _regions.size();
        // Only the page shared with the previous piece counts, and its disposition is cached.
        count = first != piece.start() ? cached : 0;
    }
    std::vector<std::int32_t> dispositions(count);
    if (count != 0 && cached != 0) dispositions[0] = _cachedDisposition;
    if (count > cached && !query(first + cached * page, std::span(dispositions).subspan(cached)))
        return false;

    std::uint64_t dirtySize = 0;
    std::uint64_t swappedSize = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const bool dirty = isDirty(dispositions[i]);
        if (!dirty && (dispositions[i] & kPageQueryPagedOut) == 0) continue;
        const std::int32_t reduced = (dispositions[i] & kPageQueryPagedOut) | (dirty ? kPageQueryDirty : 0);
        std::uint64_t amount = page;
        if (i == 0 && first != piece.start()) {
            amount = std::min(piece.size(), first + page - piece.start());
            _cachedDispositionAddress = first;
            _cachedDisposition = reduced;
            _chargePendingUnusedRegion(piece.start(), page, dirty);
        } else if (i == count - 1 && end != piece.end()) {
            amount = piece.end() - last;
            _cachedDispositionAddress = last;
            _cachedDisposition = reduced;
        }
        (dirty ? dirtySize : swappedSize) += amount;
    }
    piece.setDirtySize(dirtySize);
    piece.setSwappedSize(swappedSize);
    _pendingUnusedSharedRegion = pending;
    return true;
}

// If unsized pieces lie in between, nothing is known about the last page of the unused piece.
void SharedRegionSplit::_chargePendingUnusedRegion(std::uint64_t nextStart, std::uint64_t pageSize,
                                                   bool dirty) {
    if (!_pendingUnusedSharedRegion) return;
    ZBMemoryRegion& unused = _regions[*_pendingUnusedSharedRegion];
    if (unused.end() != nextStart) return;
    const std::uint64_t share = std::min(unused.size(), nextStart - alignedDown(nextStart, pageSize));
    if (dirty)
        unused.setDirtySize(unused.dirtySize() + share);
    else
        unused.setSwappedSize(unused.swappedSize() + share);
}

}  // namespace zorbel
