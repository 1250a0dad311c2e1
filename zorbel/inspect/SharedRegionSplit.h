#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "inspect/ZBImageEnumerator.h"
#include "model/ZBMemoryRegion.h"
#include "platform/Records.h"

namespace zorbel {

/// A region with everything that a record says about it but its sizes.
ZBMemoryRegion regionOfRecord(std::uint64_t start, std::uint64_t size, const RegionInfoRecord& record);

/// Splits the shared region, one map of all system libraries that some machines nest into every process.
///
/// The kernel shows such a map as a whole. What a process uses of it follows from its images: the map is
/// split where their segments begin and end, and each piece is sized page by page. Segments need not begin on
/// page boundaries, so two pieces may have bytes on one page; each is charged its own bytes of it, and the
/// page is asked for once. Stretches that no image uses are charged to nobody, but for their bytes on a page
/// that they share with an image.
///
/// One object serves one walk, whose pieces come in ascending order. Cost: one page query a piece at most.
class SharedRegionSplit {
  public:
    /// Sizes a piece, given the record of the stretch that it is part of. False when that failed, which has
    /// been recorded by then.
    using Populate = std::function<bool(ZBMemoryRegion& piece, const RegionInfoRecord& record)>;
    /// Reads the dispositions (kPageQuery bits) of the pages from an address on. False as above.
    using QueryPages = std::function<bool(std::uint64_t start, std::span<std::int32_t> dispositions)>;

    /// The pieces are added to the regions, which are lent.
    explicit SharedRegionSplit(std::vector<ZBMemoryRegion>& regions) : _regions(regions) {}

    /// Splits a stretch and adds its pieces. False when a piece could not be sized; the pieces before it
    /// stay.
    bool addRegions(std::uint64_t start, std::uint64_t size, std::uint64_t pageSize,
                    const RegionInfoRecord& record, ZBImageEnumerator& images, const Populate& populate);

    /// Sets the dirty and the swapped size of a piece, which is added next, from the dispositions of its
    /// pages.
    bool populateWithPageQueries(ZBMemoryRegion& piece, std::uint64_t pageSize, const QueryPages& query);

  private:
    bool _addUnusedPiece(ZBMemoryRegion piece, std::uint64_t pageSize, const RegionInfoRecord& record,
                         const Populate& populate);
    bool _addImagePiece(ZBMemoryRegion piece, std::uint64_t pageSize, const ZBImage& image,
                        const RegionInfoRecord& record, const Populate& populate);
    void _chargePendingUnusedRegion(std::uint64_t nextStart, std::uint64_t pageSize, bool dirty);

    std::vector<ZBMemoryRegion>& _regions;
    /// The last page that two pieces were found to share, and its disposition.
    std::uint64_t _cachedDispositionAddress = 0;
    std::int32_t _cachedDisposition = 0;
    /// Index of the unused piece whose last page is shared with the piece behind it and has not been charged.
    std::optional<std::size_t> _pendingUnusedSharedRegion;
};

}  // namespace zorbel
