#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "inspect/ZBProcess.h"

namespace zorbel {

/// Called once per region of a walk with its address and size in bytes, what is known of it, its purgeable
/// state and the path of the file that it maps, which may be absent. True stops the walk.
using RegionVisitor = std::function<bool(std::uint64_t address, std::uint64_t size,
                                         const RegionInfoRecord& record, int purgeableState, Name path)>;

/// A live process: its address space, walked region by region.
class ZBUserProcess : public ZBProcess {
  public:
    /// Opens the process; null when it can't be opened, for which a global error tells the reason.
    static std::unique_ptr<ZBUserProcess> userProcessWithBsdInfo(Platform& platform,
                                                                 const BsdInfoRecord& record);

    void gatherData() override;

    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> auxData() const override { return nullptr; }

  protected:
    explicit ZBUserProcess(Platform& platform) : ZBProcess(platform) {}

    bool _populateTask() override;
    [[nodiscard]] bool _isAlive() const override { return true; }

    /// Walks the address space in ascending order until the visitor stops it or the space ends. A failing
    /// look-up ends it too and becomes an error of the process, or a warning when the process has exited; the
    /// regions that were visited before stay.
    virtual void enumerateRegions(const RegionVisitor& visitor);

    /// Walks and keeps a sized and named region for each that is met.
    void _gatherMemoryData();

    /// Records a failed kernel call. The expected code is the one that a vanished process produces: with it,
    /// a process that turns out to be gone or a zombie gets a warning and no error.
    void _processMachVMError(KernReturn code, KernReturn expectingErrorOnExit);

    TaskName _task = kTaskNull;
    /// Whether all resident memory without a file counts as dirty, save what may be reused.
    bool _anonymousDirtyRecalculation = true;

  private:
    [[nodiscard]] ZBMemoryRegion _regionFromRecord(std::uint64_t address, std::uint64_t size,
                                                   const RegionInfoRecord& record, int purgeableState,
                                                   Name path, bool breakDown) const;
    void _setSizes(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                   bool breakDown) const;
    static void _setNames(ZBMemoryRegion& region, const RegionInfoRecord& record, int purgeableState,
                          Name path, bool breakDown);
    void _reportWalkFailure(const char* lookup, KernReturn code);
};

}  // namespace zorbel
