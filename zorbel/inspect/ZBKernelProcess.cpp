#include "inspect/ZBKernelProcess.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/Utf8.h"
#include "inspect/KernelNames.h"
#include "model/KernelKinds.h"

namespace zorbel {

namespace {

// High half of an object id: the kind of site, so that different kinds never share an object.
constexpr std::uint64_t kAddressObjects = 1;
constexpr std::uint64_t kZoneObjects = 2;
constexpr std::uint64_t kTagObjects = 3;
constexpr std::uint64_t kCounterObjects = 4;
constexpr std::uint64_t kModuleObjects = 5;

std::uint64_t kindOf(const MemoryInfoRecord& record) { return record.flags & MemoryInfoRecord::kKindMask; }

bool has(const MemoryInfoRecord& record, std::uint64_t flag) { return (record.flags & flag) != 0; }

/// Whether the record is only a counter, not memory to charge.
bool isPureCounter(const MemoryInfoRecord& record) {
    constexpr std::uint64_t kMask =
        MemoryInfoRecord::kKindMask | MemoryInfoRecord::kWired | MemoryInfoRecord::kZone;
    return (record.flags & kMask) == MemoryInfoRecord::kCounter;
}

std::uint64_t objectIdOf(const MemoryInfoRecord& record) {
    const auto id = [&](std::uint64_t objects) { return record.site ^ (objects << 32); };
    switch (kindOf(record)) {
        case MemoryInfoRecord::kTagSite:
            return id(kTagObjects);
        case MemoryInfoRecord::kModuleSite:
            return id(kModuleObjects);
        case MemoryInfoRecord::kCounter:
            return id(kCounterObjects);
        default:
            return id(kAddressObjects);
    }
}

template <std::size_t size>
std::string textOf(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

template <typename... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
    char text[80];
    std::snprintf(text, sizeof text, format, arguments...);
    return text;
}

std::string nameOfModule(std::uint64_t tag, const ZBKernelProcess::KextTags& kexts) {
    const auto found = kexts.find(tag);
    if (found != kexts.end() && found->second.bundleIdentifier) return *found->second.bundleIdentifier;
    return formatted("unloaded kmod %" PRIu64, tag);
}

std::string nameOfSite(const MemoryInfoRecord& record, const ZBKernelProcess::KextTags& kexts,
                       Symbolicator& symbolicator) {
    switch (kindOf(record)) {
        case MemoryInfoRecord::kTagSite:
            return nameOfKernelTag(record.site);
        case MemoryInfoRecord::kModuleSite:
            return nameOfModule(record.site, kexts);
        case MemoryInfoRecord::kAddressSite:
            if (record.site != 0)
                if (auto symbol = symbolicator.nameOfKernelSymbol(record.site)) return *std::move(symbol);
            return formatted("site 0x%" PRIx64, record.site);
        case MemoryInfoRecord::kCounter:
            return nameOfKernelCounter(record.site);
        default:
            return formatted("unknown site (0x%x, 0x%" PRIx64 ")", static_cast<unsigned>(kindOf(record)),
                             record.site);
    }
}

}  // namespace

std::unique_ptr<ZBKernelProcess> ZBKernelProcess::kernelProcessWithBsdInfo(Platform& platform,
                                                                           const BsdInfoRecord& record) {
    std::unique_ptr<ZBKernelProcess> process(new ZBKernelProcess(platform));
    if (!process->initWithBsdInfo(record)) return nullptr;
    return process;
}

bool ZBKernelProcess::initWithBsdInfo(const BsdInfoRecord& record) {
    if (!ZBProcess::initWithBsdInfo(record)) return false;
    _idleExitStatus = ZBIdleExitStatus::kNotIdleExit;
    return true;
}

void ZBKernelProcess::gatherData() {
    KernelMemoryAccount account;
    if (const KernReturn code = _platform.mach_memory_info(account); code != kKernSuccess) {
        const std::string reason = _platform.mach_error_string(code);
        _addMessage(_displayString + ": mach_memory_info: " + reason);
        _errors.push_back(_displayString + ": " + reason);
        return;
    }
    _memoryRegions.reserve(account.zones.size() + account.memory.size());
    _addZones(account);
    _release(account.zones.data(), account.zones.size_bytes());
    _addWiredData(account.memory, account.zoneNames);
    _release(account.zoneNames.data(), account.zoneNames.size_bytes());
    _release(account.memory.data(), account.memory.size_bytes());
}

void ZBKernelProcess::_release(const void* array, std::size_t size) {
    const KernReturn code = _platform.vm_deallocate(array, size);
    if (code == kKernSuccess) return;
    _addMessage(_displayString + ": vm_deallocate: " + _platform.mach_error_string(code));
}

void ZBKernelProcess::_addZones(const KernelMemoryAccount& account) {
    static const Name kZone("zone");
    for (std::size_t i = 0; i < account.zoneNames.size(); ++i) {
        const ZoneInfoRecord& zone = account.zones[i];
        const std::uint64_t dirty =
            zone.mzi_collectable == 0 ? zone.mzi_cur_size : zone.mzi_count * zone.mzi_elem_size;
        ZBMemoryRegion& region = _memoryRegions.emplace_back();
        region.setName(Name(textOf(account.zoneNames[i].mzn_name)));
        region.setDetailedName(kZone);
        region.setSize(zone.mzi_cur_size);
        region.setDirtySize(dirty);
        region.setReclaimableSize(zone.mzi_cur_size - dirty);
        region.setObject_id((kZoneObjects << 32) + i);
    }
}

void ZBKernelProcess::_addWiredData(std::span<const MemoryInfoRecord> records,
                                    std::span<const ZoneNameRecord> zoneNames) {
    static const Name kHidden("(hidden)");
    static const Name kUserWired("(user wired)");
    Symbolicator& symbolicator = _platform.symbolicator();
    const KextTags kexts = kextTags(_platform);
    for (std::uint32_t i = 0; i < records.size(); ++i) {
        const MemoryInfoRecord& record = records[i];
        const std::uint64_t value = isPureCounter(record) ? record.mapped : record.size;
        if (record.site == 0 && value == 0) continue;
        if (isPureCounter(record)) {
            _auxData[_nameForWiredInfo(record, kexts, symbolicator, {})] =
                std::make_shared<ZBAuxData>(static_cast<std::int64_t>(value), false);
            continue;
        }
        const bool isWired = has(record, MemoryInfoRecord::kWired);
        const bool isHidden = has(record, MemoryInfoRecord::kHidden);
        const bool isUserWired = record.site == static_cast<std::uint64_t>(KernelTag::kMlock);
        ZBMemoryRegion& region = _memoryRegions.emplace_back();
        if (isWired && !isHidden && !isUserWired && !has(record, MemoryInfoRecord::kZone)) {
            region.setDirtySize(value);
        } else {
            region.setCleanNonSpecSize(value);
            if (isHidden)
                region.setDetailedName(kHidden);
            else if (isUserWired)
                region.setDetailedName(kUserWired);
        }
        if (isWired) region.setWiredSize(value);
        region.setSize(value);
        region.setUser_tag(i);
        region.setObject_id(objectIdOf(record));
        _setNameForRegion(region, record, kexts, symbolicator, zoneNames);
    }
}

ZBKernelProcess::KextTags ZBKernelProcess::kextTags(Platform& platform) {
    return _kextTagsWithKextInfo(platform.OSKextCopyLoadedKextInfo());
}

ZBKernelProcess::KextTags ZBKernelProcess::_kextTagsWithKextInfo(
    const std::vector<KernelModuleInfo>& modules) {
    KextTags kexts;
    for (const KernelModuleInfo& module : modules)
        if (module.loadTag) kexts[*module.loadTag] = module;
    return kexts;
}

std::string ZBKernelProcess::_nameForWiredInfo(const MemoryInfoRecord& record, const KextTags& kexts,
                                               Symbolicator& symbolicator,
                                               std::span<const ZoneNameRecord> zoneNames) {
    std::string name;
    if (has(record, MemoryInfoRecord::kNamed)) name = textOf(record.name);
    if (!has(record, MemoryInfoRecord::kNamed) || !isUtf8(name))
        name = nameOfSite(record, kexts, symbolicator);
    if (has(record, MemoryInfoRecord::kZone) && record.zone < zoneNames.size())
        name += "[" + textOf(zoneNames[record.zone].mzn_name) + "]";
    return name;
}

void ZBKernelProcess::_setNameForRegion(ZBMemoryRegion& region, const MemoryInfoRecord& record,
                                        const KextTags& kexts, Symbolicator& symbolicator,
                                        std::span<const ZoneNameRecord> zoneNames) {
    region.setName(Name(_nameForWiredInfo(record, kexts, symbolicator, zoneNames)));
    if (kindOf(record) != MemoryInfoRecord::kAddressSite) return;
    if (const auto source = symbolicator.sourceOfKernelAddress(record.site))
        region.setDetailedName(Name("(" + source->path + ":" + std::to_string(source->line) + ")"));
}

std::shared_ptr<const ZBAuxDataDictionary> ZBKernelProcess::auxData() const {
    return std::make_shared<ZBAuxDataDictionary>(
        ZBAuxDataDictionary::Entries{{"Maps", std::make_shared<ZBAuxDataDictionary>(_auxData)}});
}

}  // namespace zorbel
