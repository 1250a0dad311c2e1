#pragma once

#include <cstdint>
#include <forward_list>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "inspect/SharedRegionSplit.h"
#include "inspect/ZBImage.h"
#include "inspect/ZBImageEnumerator.h"
#include "inspect/ZBProcess.h"

namespace zorbel {

/// Called for each region of a walk: address and size in bytes, record, purgeable state, and path of the
/// mapped file if there is one. Returning true stops the walk.
using RegionVisitor = std::function<bool(std::uint64_t address, std::uint64_t size,
                                         const RegionInfoRecord& record, int purgeableState, Name path)>;

/// A live process: its images and its address space, walked region by region.
///
/// Some machines nest one map of all system libraries, the shared region, into every process; see
/// SharedRegionSplit.
class ZBUserProcess : public ZBProcess {
  public:
    /// Opens the process; null if that fails, with the reason as a global error.
    static std::unique_ptr<ZBUserProcess> userProcessWithBsdInfo(Platform& platform,
                                                                 const BsdInfoRecord& record);

    void readData() override;
    void gatherDetails() override;
    void gatherData() override;

    /// What the system charges the process, if known, and the kernel's memory for the process if it is alive.
    /// Read when the process was opened.
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> auxData() const override;

  protected:
    explicit ZBUserProcess(Platform& platform) : ZBProcess(platform) {}

    bool initWithBsdInfo(const BsdInfoRecord& record) override;
    bool _populateTask() override;
    /// From the argument area of the opened task.
    [[nodiscard]] std::string _gatherName(const BsdInfoRecord& record) const override;
    [[nodiscard]] bool _isAlive() const override { return true; }

    // If these fail, their figures stay unchanged.
    void _gatherKernelMemory();
    virtual void _gatherPhysZorbel();
    virtual void _gatherIdleExitStatus();
    /// From kProcDirty bits.
    void _setIdleExitStatusFromDirtyFlags(std::uint32_t flags);

    /// Fills the images, sorted by start.
    virtual void _gatherImageData();

    /// Sets the place of the shared region for this kind of machine. For an unknown kind, reports it, returns
    /// false and changes nothing.
    bool _setSharedRegionFromPlatform(ZBPlatform platform);
    [[nodiscard]] bool _isInSharedRegion(std::uint64_t address) const {
        return address - _sharedRegionBase < _sharedRegionSize;
    }

    /// Walks the address space in ascending order until the visitor stops it or the space ends. A failed
    /// look-up also ends the walk, as an error of the process, or a warning if the process has exited.
    /// Regions visited before stay.
    virtual void enumerateRegions(const RegionVisitor& visitor);

    /// Walks and stores each region with sizes and name; the shared region becomes several.
    void _gatherMemoryData();

    /// Sets the dirty and swapped size of a piece of the shared region from its pages' dispositions. The
    /// piece must be the next one added. Two pieces that share a page are each charged their own bytes.
    /// Returns false if the query fails, after recording the reason.
    virtual bool _populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece, const RegionInfoRecord& record);

    /// Records a failed kernel call. If the code is the one expected for a process that exits, and the
    /// process has exited or is a zombie, adds a warning instead of an error.
    void _processMachVMError(KernReturn code, KernReturn expectingErrorOnExit);

    std::vector<ZBImage> _images;
    TaskName _task = kTaskNull;
    std::uint64_t _sharedRegionBase = 0;
    std::uint64_t _sharedRegionSize = 0;  ///< 0 on a machine without a shared region.
    /// Whether all resident memory without a file counts as dirty, except reusable pages. Not in breakdown
    /// mode.
    bool _anonymousDirtyRecalculation = true;
    // Bytes.
    std::uint64_t _phys_zorbel = 0;
    std::uint64_t _phys_zorbel_peak = 0;
    std::int64_t _kprvt = 0;
    std::int64_t _kshrd = 0;

  private:
    /// An address close below the shared region where a region begins; 0 if none was found.
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

    /// Takes over what of a region's sizes counts for objects of its own.
    void _setSharedParts(ZBMemoryRegion& region, const RegionInfoRecord& record);
    bool _queryPages(std::uint64_t start, std::span<std::int32_t> dispositions);

    std::forward_list<std::vector<SharedPart>> _sharedParts;  ///< Lent to the regions.
    SharedRegionSplit _sharedRegionSplit{_memoryRegions};
};

}  // namespace zorbel
