#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "inspect/SharedRegionSplit.h"
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
/// Some machines nest one map of all system libraries, the shared region, into every process:
/// SharedRegionSplit.
class ZBUserProcess : public ZBProcess {
  public:
    /// Opens the process; null when it can't be opened, for which a global error tells the reason.
    static std::unique_ptr<ZBUserProcess> userProcessWithBsdInfo(Platform& platform,
                                                                 const BsdInfoRecord& record);

    void readData() override;
    void gatherData() override;

    /// The charges that the system itself keeps, left out where it tells none, and the kernel's memory on
    /// behalf of a process that is alive. Read when the process was opened.
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> auxData() const override;

  protected:
    explicit ZBUserProcess(Platform& platform) : ZBProcess(platform) {}

    bool initWithBsdInfo(const BsdInfoRecord& record) override;
    bool _populateTask() override;
    /// From the argument area of the opened task.
    [[nodiscard]] std::string _gatherName(const BsdInfoRecord& record) const override;
    [[nodiscard]] bool _isAlive() const override { return true; }

    // What fails leaves its figures as they were.
    void _gatherKernelMemory();
    virtual void _gatherPhysZorbel();
    virtual void _gatherIdleExitStatus();
    /// From kProcDirty bits.
    void _setIdleExitStatusFromDirtyFlags(std::uint32_t flags);

    /// Fills the images, sorted by start.
    virtual void _gatherImageData();

    /// Places the shared region as that kind of machine does. False, with a message, for a kind that is not
    /// known; the shared region then stays where it was.
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
    [[nodiscard]] std::string _textOfIncompleteData() const;

    [[nodiscard]] ZBMemoryRegion _regionFromRecord(std::uint64_t address, std::uint64_t size,
                                                   const RegionInfoRecord& record, int purgeableState,
                                                   Name path, bool breakDown,
                                                   ZBImageEnumerator& images) const;
    void _setSizes(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                   bool breakDown) const;
    static void _setNames(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                          Name path, bool breakDown);

    bool _queryPages(std::uint64_t start, std::span<std::int32_t> dispositions);

    SharedRegionSplit _sharedRegionSplit{_memoryRegions};
};

}  // namespace zorbel
