#include "inspect/ZBUserProcess.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <span>

namespace zorbel {

namespace {

/// Alignments are powers of two.
constexpr bool isAligned(std::uint64_t value, std::uint64_t alignment) {
    return (value & (alignment - 1)) == 0;
}
constexpr std::uint64_t alignedDown(std::uint64_t value, std::uint64_t alignment) {
    return value & ~(alignment - 1);
}
/// What is missing to the next multiple.
constexpr std::uint64_t padding(std::uint64_t value, std::uint64_t alignment) {
    return (0 - value) & (alignment - 1);
}

/// Memory without a file has nowhere to be read from again: what of it is resident is dirty, marked or not.
constexpr bool isDirty(std::int32_t disposition) {
    return (disposition & kPageQueryDirty) != 0 ||
           (disposition & (kPageQueryPresent | kPageQueryExternal)) == kPageQueryPresent;
}

}  // namespace

bool ZBUserProcess::_setSharedRegionFromPlatform(ZBPlatform platform) {
    const auto place = [this](std::uint64_t base, std::uint64_t size) {
        _sharedRegionBase = base;
        _sharedRegionSize = size;
        return true;
    };
    switch (platform) {
        case ZBPlatform::kX86:
            return place(0x9000'0000, 0x2000'0000);
        case ZBPlatform::kX86_64:
            return place(0x7FFF'0000'0000, 0xFFE0'0000);
        case ZBPlatform::kARM:
        case ZBPlatform::kARM64_32:
            return place(0x1A00'0000, 0x2600'0000);
        case ZBPlatform::kARM64:
            return place(0x1'8000'0000, 0x1'0000'0000);
        case ZBPlatform::kLinux:
            return place(0, 0);
        case ZBPlatform::kUnknown:
            break;
    }
    std::fputs("Unable to determine platform architecture of target\n", stderr);
    return false;
}

// The top-level look-ups of the walk begin at this address. Each is one more call, so a search finds a place
// that spares most of them.
std::uint64_t ZBUserProcess::_lastNonSharedCacheRegion() {
    constexpr std::uint64_t kCloseEnough = 0x100'0000;
    std::uint64_t low = 0;
    std::uint64_t high = _sharedRegionBase;
    while (high - low > kCloseEnough) {
        const std::uint64_t middle = (high >> 1) + (low >> 1);
        std::uint64_t found = middle;
        std::uint64_t size = 0;
        BasicRegionInfoRecord record;
        if (_platform.mach_vm_region(_task, found, size, record) != kKernSuccess) break;
        if (found <= low) break;
        if (found < _sharedRegionBase)
            low = found;
        else
            high = middle - _pageSize;
    }
    return low;
}

KernReturn ZBUserProcess::_lookUpTopLevelRegion(std::uint64_t& address, std::uint64_t& size,
                                                RegionInfoRecord& record) {
    std::uint64_t start = address;
    BasicRegionInfoRecord basic;
    const KernReturn code = _platform.mach_vm_region(_task, start, size, basic);
    if (code != kKernSuccess) return code;
    // What lies before the address has been visited already.
    if (start < address)
        size -= address - start;
    else
        address = start;
    record.protection = basic.protection;
    record.max_protection = basic.max_protection;
    record.inheritance = basic.inheritance;
    record.offset = basic.offset;
    record.behavior = basic.behavior;
    record.user_wired_count = basic.user_wired_count;
    record.external_pager = 1;
    record.share_mode = kShareModeCopyOnWrite;
    record.object_id = 1;  // All processes map the same one.
    return code;
}

bool ZBUserProcess::_addRegionsToArray(std::uint64_t start, std::uint64_t size,
                                       const RegionInfoRecord& record, ZBImageEnumerator& images) {
    const std::uint64_t end = start + std::min(size, std::numeric_limits<std::uint64_t>::max() - start);
    const auto pieceOf = [&](std::uint64_t from, std::uint64_t pieceEnd) {
        ZBMemoryRegion piece = _newRegion(from, pieceEnd - from, record);
        piece.setOffset(record.offset + (from - start));
        piece.setInSharedCache(true);
        return piece;
    };
    const ZBImage* image = images.nextImageForStart(start, end);
    std::uint64_t current = start;
    while (current < end) {
        if (image == nullptr || current < image->start()) {
            const std::uint64_t pieceEnd = image != nullptr ? std::min(end, image->start()) : end;
            if (!_addUnusedPiece(pieceOf(current, pieceEnd), record)) return false;
            current = pieceEnd;
        } else if (image->end() <= current) {
            // The image before took its bytes.
            image = images.nextImageForStart(current, end);
        } else {
            std::uint64_t pieceEnd = std::min(image->end(), end);
            const ZBImage* next = images.nextImageForStart(pieceEnd, end);
            // What is left of the last page before an image that begins on a page of its own is padding.
            const std::uint64_t alignment = _sharedRegionAlignmentSize;
            if (isAligned(current, alignment) && isAligned(next != nullptr ? next->start() : 0, alignment))
                pieceEnd += std::min(padding(pieceEnd, alignment), end - pieceEnd);
            if (!_addImagePiece(pieceOf(current, pieceEnd), *image, record)) return false;
            current = pieceEnd;
            image = next;
        }
    }
    return true;
}

// No process is charged for the pages of a stretch that it does not use, save for what shares a page with an
// image.
bool ZBUserProcess::_addUnusedPiece(ZBMemoryRegion piece, const RegionInfoRecord& record) {
    static const Name kUnused("unused varnel shared cache area");
    piece.setName(kUnused);
    piece.setUnusedSharedCacheRegion(true);
    const bool sharesPages = !isAligned(piece.start(), _pageSize) || !isAligned(piece.end(), _pageSize);
    if (sharesPages && !_populateMemoryRegionWithPageQueries(piece, record)) return false;
    _memoryRegions.push_back(piece);
    return true;
}

// Text and link-edit data are never written to and charged to nobody. The link-edit data of all images lie in
// one place, so they bear one name.
bool ZBUserProcess::_addImagePiece(ZBMemoryRegion piece, const ZBImage& image,
                                   const RegionInfoRecord& record) {
    static const Name kLinkedit("__LINKEDIT varnel shared cache");
    const bool isLinkedit = image.segment() == SegmentCode::kLinkedit;
    piece.setName(isLinkedit ? kLinkedit : image.nameOfRegions());
    piece.setSegment(image.segment());
    const bool isCharged = !isLinkedit && image.segment() != SegmentCode::kText;
    if (isCharged && !_populateMemoryRegionWithPageQueries(piece, record)) return false;
    piece.setWiredSize(std::min(std::uint64_t{_pageSize} * record.user_wired_count, piece.dirtySize()));
    _memoryRegions.push_back(piece);
    return true;
}

bool ZBUserProcess::_populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece,
                                                         const RegionInfoRecord& /*record*/) {
    ZB_ASSERT(piece.dirtySize() == 0, "memoryRegion.dirtySize == 0");
    ZB_ASSERT(piece.swappedSize() == 0, "memoryRegion.swappedSize == 0");
    const std::uint64_t page = _pageSize;
    const std::uint64_t first = alignedDown(piece.start(), page);
    const std::uint64_t end = piece.end() + padding(piece.end(), page);
    const std::uint64_t last = end - page;
    std::uint64_t count = (end - first) / page;
    const std::uint64_t cached = count != 0 && _cachedDispositionAddress == first ? 1 : 0;

    std::optional<std::size_t> pending;
    if (piece.unusedSharedCacheRegion()) {
        if (count >= 2 && end != piece.end()) pending = _memoryRegions.size();
        // Of an unused piece only the page that it shares with the piece before counts, and that is known.
        count = first != piece.start() ? cached : 0;
    }
    std::vector<std::int32_t> dispositions(count);
    if (count != 0 && cached != 0) dispositions[0] = _cachedDisposition;
    if (count > cached && !_queryPages(first + cached * page, std::span(dispositions).subspan(cached)))
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
            _chargePendingUnusedRegion(piece.start(), dirty);
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

bool ZBUserProcess::_queryPages(std::uint64_t start, std::span<std::int32_t> dispositions) {
    std::uint64_t count = dispositions.size();
    const KernReturn code =
        _platform.mach_vm_page_range_query(_task, start, count * _pageSize, dispositions.data(), count);
    if (code == kKernSuccess) return true;
    _platform.mach_error("mach_vm_page_range_query", code);
    _processMachVMError(code, kKernInvalidArgument);
    return false;
}

// Where pieces that are not sized lie between, nothing is known of the page that the unused piece ends on.
void ZBUserProcess::_chargePendingUnusedRegion(std::uint64_t nextStart, bool dirty) {
    if (!_pendingUnusedSharedRegion) return;
    ZBMemoryRegion& unused = _memoryRegions[*_pendingUnusedSharedRegion];
    if (unused.end() != nextStart) return;
    const std::uint64_t share = std::min(unused.size(), nextStart - alignedDown(nextStart, _pageSize));
    if (dirty)
        unused.setDirtySize(unused.dirtySize() + share);
    else
        unused.setSwappedSize(unused.swappedSize() + share);
}

}  // namespace zorbel
