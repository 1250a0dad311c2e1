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

/// A region with everything from the record except sizes.
ZBMemoryRegion regionOfRecord(std::uint64_t start, std::uint64_t size, const RegionInfoRecord& record);

/// Splits the shared region: one map of all system libraries, which some machines nest into every process.
///
/// The kernel shows such a map as a whole. It is split where segments of the process's images begin and end,
/// and each piece is sized page by page. Segments need not begin on page boundaries, so two pieces may share
/// a page: each is charged its own bytes of it, and the page is queried once. No process is charged for a
/// part that no image uses, except for its bytes of a page shared with an image.
///
/// Use one object for one walk, with pieces in ascending order. Cost: at most one page query for each piece.
class SharedRegionSplit {
  public:
    /// Sizes a piece, given the record of the part of the region that it belongs to. Records an error and
    /// returns false if that fails.
    using Populate = std::function<bool(ZBMemoryRegion& piece, const RegionInfoRecord& record)>;
    /// Reads the dispositions (kPageQuery bits) of the pages from this address on. Fails in the same way.
    using QueryPages = std::function<bool(std::uint64_t start, std::span<std::int32_t> dispositions)>;

    /// The pieces are added to regions, which must outlive this object.
    explicit SharedRegionSplit(std::vector<ZBMemoryRegion>& regions) : _regions(regions) {}

    /// Splits a part of the shared region and adds its pieces. Returns false if a piece can't be sized;
    /// earlier pieces stay.
    bool addRegions(std::uint64_t start, std::uint64_t size, std::uint64_t pageSize,
                    const RegionInfoRecord& record, ZBImageEnumerator& images, const Populate& populate);

    /// Sets the dirty and swapped size of a piece from the dispositions of its pages. The piece must be the
    /// next one that is added.
    bool populateWithPageQueries(ZBMemoryRegion& piece, std::uint64_t pageSize, const QueryPages& query);

  private:
    bool _addUnusedPiece(ZBMemoryRegion piece, std::uint64_t pageSize, const RegionInfoRecord& record,
                         const Populate& populate);
    bool _addImagePiece(ZBMemoryRegion piece, std::uint64_t pageSize, const ZBImage& image,
                        const RegionInfoRecord& record, const Populate& populate);
    void _chargePendingUnusedRegion(std::uint64_t nextStart, std::uint64_t pageSize, bool dirty);

    std::vector<ZBMemoryRegion>& _regions;
    /// The last page found to be shared by two pieces, and its disposition.
    std::uint64_t _cachedDispositionAddress = 0;
    std::int32_t _cachedDisposition = 0;
    /// Index of an unused piece whose last page is shared with the next piece and not charged yet.
    std::optional<std::size_t> _pendingUnusedSharedRegion;
};

}  // namespace zorbel
