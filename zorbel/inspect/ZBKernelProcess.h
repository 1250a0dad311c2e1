#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "inspect/ZBProcess.h"

namespace zorbel {

/// The kernel as a target. It has no address space to walk. Its regions are the zones and sites of the
/// kernel's account of its own memory; the page counters of that account are its auxiliary data.
class ZBKernelProcess : public ZBProcess {
  public:
    /// Loaded modules by load tag.
    using KextTags = std::unordered_map<std::uint64_t, KernelModuleInfo>;

    static std::unique_ptr<ZBKernelProcess> kernelProcessWithBsdInfo(Platform& platform,
                                                                     const BsdInfoRecord& record);

    /// Reads the account, which needs privileges. If that fails, the process has an error and no regions.
    void gatherData() override;

    /// The counters, in a dictionary "Maps".
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> auxData() const override;

    static KextTags kextTags(Platform& platform);
    /// Leaves out modules without a load tag.
    static KextTags _kextTagsWithKextInfo(const std::vector<KernelModuleInfo>& modules);

    /// Name of a record: its own if it has one, else by its site. If zone names are given, memory from a zone
    /// has the zone's name added.
    static std::string _nameForWiredInfo(const MemoryInfoRecord& record, const KextTags& kexts,
                                         Symbolicator& symbolicator,
                                         std::span<const ZoneNameRecord> zoneNames);
    /// Sets the region's name, and for a kernel address its place in the source as detailed name.
    static void _setNameForRegion(ZBMemoryRegion& region, const MemoryInfoRecord& record,
                                  const KextTags& kexts, Symbolicator& symbolicator,
                                  std::span<const ZoneNameRecord> zoneNames);

  protected:
    explicit ZBKernelProcess(Platform& platform) : ZBProcess(platform) {}

    bool initWithBsdInfo(const BsdInfoRecord& record) override;
    bool _populateTask() override { return true; }
    [[nodiscard]] bool _isAlive() const override { return true; }

  private:
    void _addZones(const KernelMemoryAccount& account);
    void _addWiredData(std::span<const MemoryInfoRecord> records, std::span<const ZoneNameRecord> zoneNames);
    void _release(const void* array, std::size_t size);

    ZBAuxDataDictionary::Entries _auxData;
};

}  // namespace zorbel
