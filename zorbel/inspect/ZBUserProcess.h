#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "inspect/ZBImage.h"
#include "inspect/ZBImageEnumerator.h"
#include "inspect/ZBProcess.h"

namespace zorbel {

/// Called once per region of a walk with its address and size in bytes, what is known of it, its purgeable
/// state and the path of the file that it maps, which may be absent. True stops the walk.
using RegionVisitor = std::function<bool(std::uint64_t address, std::uint64_t size,
                                         const RegionInfoRecord& record, int purgeableState, Name path)>;

/// A live process: its images and its address space, walked region by region.
///
/// Some machines nest one map of all system libraries, the shared region, into every process. The kernel
/// tells of it as a whole only, so it is split by the images of the process, and each piece is sized page by
/// page.
class ZBUserProcess : public ZBProcess {
  public:
    /// Opens the process; null when it can't be opened, for which a global error tells the reason.
    static std::unique_ptr<ZBUserProcess> userProcessWithBsdInfo(Platform& platform,
                                                                 const BsdInfoRecord& record);

    void gatherData() override;

    /// The charges that the system itself keeps, left out where it tells none, and the kernel's memory on
    /// behalf of a process that is alive. Read when the process was opened.
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> auxData() const override;

  protected:
    explicit ZBUserProcess(Platform& platform) : ZBProcess(platform) {}

    bool initWithBsdInfo(const BsdInfoRecord& record) override;
    bool _populateTask() override;
    [[nodiscard]] bool _isAlive() const override { return true; }

    // What fails leaves its figures as they were.
    void _gatherKernelMemory();
    virtual void _gatherPhysZorbel();
    virtual void _gatherIdleExitStatus();
    /// From kProcDirty bits.
    void _setIdleExitStatusFromDirtyFlags(std::uint32_t flags);

    /// Fills the images, sorted by start.
    virtual void _gatherImageData();

    /// Places the shared region as that kind of machine does. False, and said on standard error, for a kind
    /// that is not known; the shared region then stays where it was.
    bool _setSharedRegionFromPlatform(ZBPlatform platform);
    [[nodiscard]] bool _isInSharedRegion(std::uint64_t address) const {
        return address - _sharedRegionBase < _sharedRegionSize;
    }

    /// Walks the address space in ascending order until the visitor stops it or the space ends. A failing
    /// look-up ends it too and becomes an error of the process, or a warning when the process has exited; the
    /// regions that were visited before stay.
    virtual void enumerateRegions(const RegionVisitor& visitor);

    /// Walks and keeps a sized and named region for each that is met, several for the shared region.
    void _gatherMemoryData();

    /// Sets the dirty and swapped size of a piece of the shared region, which is added to the regions next,
    /// from the dispositions of its pages. Each piece is charged its own bytes of a page that two of them
    /// share. False when the pages can't be had; why has been recorded then.
    virtual bool _populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece, const RegionInfoRecord& record);

    /// Records a failed kernel call. The expected code is the one that a vanished process produces: with it,
    /// a process that turns out to be gone or a zombie gets a warning and no error.
    void _processMachVMError(KernReturn code, KernReturn expectingErrorOnExit);

    std::vector<ZBImage> _images;
    TaskName _task = kTaskNull;
    std::uint64_t _sharedRegionBase = 0;
    std::uint64_t _sharedRegionSize = 0;  ///< 0 on a machine without a shared region.
    /// To what image segments are aligned inside the shared region, in bytes.
    std::uint32_t _sharedRegionAlignmentSize = 4096;
    /// Whether all resident memory without a file counts as dirty, save what may be reused.
    bool _anonymousDirtyRecalculation = true;
    // Bytes.
    std::uint64_t _phys_zorbel = 0;
    std::uint64_t _phys_zorbel_peak = 0;
    std::int64_t _kprvt = 0;
    std::int64_t _kshrd = 0;

  private:
    /// Start of a region close below the shared region; 0 when none was found.
    std::uint64_t _lastNonSharedCacheRegion();
    KernReturn _lookUpTopLevelRegion(std::uint64_t& address, std::uint64_t& size, RegionInfoRecord& record);
    void _reportWalkFailure(const char* lookup, KernReturn code);
    void _sayDataIsIncomplete() const;

    /// A region with all that the record says of it but its sizes.
    static ZBMemoryRegion _newRegion(std::uint64_t start, std::uint64_t size, const RegionInfoRecord& record);
    [[nodiscard]] ZBMemoryRegion _regionFromRecord(std::uint64_t address, std::uint64_t size,
                                                   const RegionInfoRecord& record, int purgeableState,
                                                   Name path, bool breakDown,
                                                   ZBImageEnumerator& images) const;
    void _setSizes(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                   bool breakDown) const;
    static void _setNames(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                          Name path, bool breakDown);

    /// Splits a stretch of the shared region and adds the pieces to the regions. False when a page query
    /// failed; the pieces before stay.
    bool _addRegionsToArray(std::uint64_t start, std::uint64_t size, const RegionInfoRecord& record,
                            ZBImageEnumerator& images);
    bool _addUnusedPiece(ZBMemoryRegion piece, const RegionInfoRecord& record);
    bool _addImagePiece(ZBMemoryRegion piece, const ZBImage& image, const RegionInfoRecord& record);
    bool _queryPages(std::uint64_t start, std::span<std::int32_t> dispositions);
    void _chargePendingUnusedRegion(std::uint64_t nextStart, bool dirty);

    /// The last page that was found to be shared by two pieces, and its disposition.
    std::uint64_t _cachedDispositionAddress = 0;
    std::int32_t _cachedDisposition = 0;
    /// Index of the unused piece whose last page is shared with the piece behind it and has not been charged.
    std::optional<std::size_t> _pendingUnusedSharedRegion;
};

}  // namespace zorbel
