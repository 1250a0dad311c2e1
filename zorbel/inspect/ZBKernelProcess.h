#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "inspect/ZBProcess.h"

namespace zorbel {

/// The kernel as a target. It has no address space to walk: its regions are the zones and the sites of the
/// kernel's own account of its memory, and the page counters of that account are its auxiliary data.
class ZBKernelProcess : public ZBProcess {
  public:
    /// Loaded modules by their load tags.
    using KextTags = std::unordered_map<std::uint64_t, KernelModuleInfo>;

    static std::unique_ptr<ZBKernelProcess> kernelProcessWithBsdInfo(Platform& platform,
                                                                     const BsdInfoRecord& record);

    /// Without the account, which takes privilege, the process has an error and no regions.
    void gatherData() override;

    /// The counters, under "Maps".
    [[nodiscard]] std::shared_ptr<const ZBAuxDataDictionary> auxData() const override;

    static KextTags kextTags(Platform& platform);
    /// Modules without a load tag are left out.
    static KextTags _kextTagsWithKextInfo(const std::vector<KernelModuleInfo>& modules);

    /// What a record is called: by its own name, or by its site. With zone names, memory from a zone bears
    /// the zone's name too.
    static std::string _nameForWiredInfo(const MemoryInfoRecord& record, const KextTags& kexts,
                                         Symbolicator& symbolicator,
                                         std::span<const ZoneNameRecord> zoneNames);
    /// Names the region so; that of an address in the kernel gets its place in the source as detailed name.
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
