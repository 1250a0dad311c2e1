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

/// The texts that describe the kernel's memory: files of /proc, and mm_stat of each /sys/block/zram*. A text
/// is empty where the system has no such file.
struct KernelTexts {
    std::string slabinfo;
    std::string vmallocinfo;
    std::string allocinfo;
    std::string modules;
    std::string meminfo;
    std::string zoneinfo;
    std::vector<std::string> zramStats;
};

/// Reads all texts. Fails with the first errno other than ENOENT from a file of /proc. slabinfo and
/// vmallocinfo need root.
Result<KernelTexts> readKernelTexts(const SystemRoot& root);

/// The kernel's memory, as those texts show it.
///
/// Each byte is counted once. vmallocinfo also lists thread stacks and modules: they are left out there. The
/// zones include all memory of the slab allocator, so its total is hidden.
class KernelMemory {
  public:
    /// Areas that processes map, such as BPF arrays, count for those: so many bytes of them are left out.
    KernelMemory(const KernelTexts& texts, std::uint64_t pageSize, std::uint64_t mappedByTargets = 0);

    [[nodiscard]] KernelMemoryAccount account() const { return {_zoneNames, _zones, _records}; }
    /// Frees the array of the account that begins at this address. False if there is none.
    bool release(const void* array);

    [[nodiscard]] const std::vector<KernelModuleInfo>& modules() const { return _modules; }
    /// Function name and source of a site of the account; nothing if unknown. A site's number is our own: the
    /// kernel shows function names instead of addresses.
    [[nodiscard]] std::optional<std::string> symbolOfSite(std::uint64_t site) const;
    [[nodiscard]] std::optional<SourceLocation> sourceOfSite(std::uint64_t site) const;

  private:
    struct Function {
        std::string name;
        std::optional<SourceLocation> source;
    };

    void _addZones(std::string_view slabinfo, std::uint64_t pageSize);
    void _addModules(std::string_view modules);
    void _addFunctions(std::string_view vmallocinfo, std::uint64_t pageSize, std::uint64_t mappedByTargets);
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
    std::uint64_t _wiredSize = 0;  ///< Bytes of all wired records that are not hidden.
};

}  // namespace zorbel
