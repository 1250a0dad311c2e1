#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Error.h"
#include "linux/process/SystemRoot.h"
#include "platform/KernelRecords.h"
#include "platform/Symbolicator.h"

namespace zorbel {

/// The texts that tell of the kernel's memory, empty where the system has none: files of /proc, and the
/// mm_stat of each /sys/block/zram*.
struct KernelTexts {
    std::string slabinfo;
    std::string vmallocinfo;
    std::string allocinfo;
    std::string modules;
    std::string meminfo;
    std::string zoneinfo;
    std::vector<std::string> zramStats;
};

/// Reads them all; the error of the first one that may not be read. slabinfo and vmallocinfo take root.
Result<KernelTexts> readKernelTexts(const SystemRoot& root);

/// The kernel's memory as those texts tell it.
///
/// No byte is told twice: thread stacks and modules are in vmallocinfo too, where they are left out; what the
/// slab allocator has is in the zones, and its total is hidden.
class KernelMemory {
  public:
    KernelMemory(const KernelTexts& texts, std::uint64_t pageSize);

    [[nodiscard]] KernelMemoryAccount account() const { return {_zoneNames, _zones, _records}; }
    /// Gives up the array of the account that begins there. False when there is none.
    bool release(const void* array);

    [[nodiscard]] const std::vector<KernelModuleInfo>& modules() const { return _modules; }
    /// What is known of the sites of the account, by number. The kernel tells the names of functions in place
    /// of their addresses, so the numbers are ours.
    [[nodiscard]] std::optional<std::string> symbolOfSite(std::uint64_t site) const;
    [[nodiscard]] std::optional<SourceLocation> sourceOfSite(std::uint64_t site) const;

  private:
    struct Function {
        std::string name;
        std::optional<SourceLocation> source;
    };

    void _addZones(std::string_view slabinfo, std::uint64_t pageSize);
    void _addModules(std::string_view modules);
    void _addFunctions(std::string_view vmallocinfo, std::uint64_t pageSize);
    void _findSources(std::string_view allocinfo);
    void _addTags(const KernelTexts& texts);
    void _addCounters(const KernelTexts& texts, std::uint64_t pageSize);
    MemoryInfoRecord& _add(std::uint64_t flags, std::uint64_t site, std::uint64_t size);
    [[nodiscard]] const Function* _functionOfSite(std::uint64_t site) const;

    std::vector<ZoneNameRecord> _zoneNames;
    std::vector<ZoneInfoRecord> _zones;
    std::vector<MemoryInfoRecord> _records;
    std::vector<KernelModuleInfo> _modules;
    std::vector<Function> _functions;  ///< In the order of their sites.
    std::uint64_t _zonesSize = 0;
    std::uint64_t _wiredSize = 0;  ///< Of all records that are not hidden.
};

}  // namespace zorbel
