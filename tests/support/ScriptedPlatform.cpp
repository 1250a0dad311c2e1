#include "support/ScriptedPlatform.h"

#include <algorithm>

#include "memgraph/MemoryGraph.h"

namespace zorbel::test {

namespace {

template <typename Value>
std::optional<Value> valueAt(const std::map<std::uint64_t, Value>& values, std::uint64_t key) {
    const auto found = values.find(key);
    return found == values.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

void RecordedDiagnostics::report(std::string_view message) {
    const std::lock_guard lock(_mutex);
    _messages.append(message) += '\n';
}

bool RecordedDiagnostics::isAny() {
    const std::lock_guard lock(_mutex);
    return !_messages.empty();
}

std::string RecordedDiagnostics::take() {
    const std::lock_guard lock(_mutex);
    return std::exchange(_messages, {});
}

ScriptedProcess& ScriptedPlatform::process(std::int32_t pid, const std::string& name) {
    ScriptedProcess& process = _processes.emplace_back();
    process.pid = pid;
    process.argumentArea = std::string("\2\0\0\0", 4) + "/usr/bin/" + name + '\0' + '\0' + name + '\0';
    return process;
}

Targets ScriptedPlatform::open() {
    Targets opened;
    for (const ScriptedProcess& process : _processes)
        if (auto made = ZBProcess::processWithPid(*this, process.pid)) opened.push_back(std::move(made));
    return opened;
}

ZBPlatform ScriptedPlatform::platformOfProcesses(bool is64bit) const {
    return kind.value_or(is64bit ? ZBPlatform::kARM64 : ZBPlatform::kARM);
}

void ScriptedPlatform::forEachSymbolOwner(TaskName task,
                                          const std::function<void(const SymbolOwner&)>& consume) {
    for (const auto& [path, segments] : _ofTask(task).images) consume({path, segments});
}

bool ScriptedPlatform::proc_listallpids(std::vector<std::int32_t>& pids) {
    for (const ScriptedProcess& process : _processes) pids.push_back(process.pid);
    return hasProcessList;
}

bool ScriptedPlatform::proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) {
    const ScriptedProcess* process = _find(pid);
    if (process == nullptr || !process->hasRecord) return false;
    record.pbi_flags = process->flags;
    record.pbi_pid = static_cast<std::uint32_t>(pid);
    record.pbi_ppid = static_cast<std::uint32_t>(process->parent);
    return true;
}

int ScriptedPlatform::proc_pidinfo(TaskName task, BsdShortInfoRecord& record) {
    record.pbsi_status = _ofTask(task).state;
    return _ofTask(task).shortRecordError;
}

bool ScriptedPlatform::sysctl_procargs(std::int32_t pid, std::string& area) {
    const ScriptedProcess* process = _find(pid);
    if (process == nullptr || !process->argumentArea) return false;
    area = *process->argumentArea;
    return true;
}

bool ScriptedPlatform::sysctl_procargs(TaskName task, std::string& area) {
    return sysctl_procargs(static_cast<std::int32_t>(task), area);
}

void ScriptedPlatform::_note(std::string phase) {
    const std::lock_guard lock(_mutex);
    phases.push_back(std::move(phase));
}

bool ScriptedPlatform::hasReached(const std::string& phase) {
    const std::lock_guard lock(_mutex);
    return std::ranges::find(phases, phase) != phases.end();
}

void ScriptedPlatform::readTask(TaskName task) {
    _note("read " + std::to_string(task));
    _ofTask(task).beforeReading();
}

KernReturn ScriptedPlatform::task_for_pid(std::int32_t pid, TaskName& task) {
    task = static_cast<TaskName>(pid);
    return _find(pid)->openCode;
}

KernReturn ScriptedPlatform::mach_ports_lookup(std::vector<TaskName>& ports) {
    ports = handedOver;
    return handedOverCode;
}

KernReturn ScriptedPlatform::task_info(TaskName task, KernelMemoryRecord& record) {
    if (_find(static_cast<std::int32_t>(task)) == nullptr) return kKernFailure;
    record = _ofTask(task).kernelMemory;
    return _ofTask(task).hasFigures ? kKernSuccess : kKernFailure;
}

int ScriptedPlatform::proc_pid_rusage(TaskName task, ResourceUsageRecord& record) {
    record = _ofTask(task).charges;
    return _ofTask(task).hasFigures ? 0 : ESRCH;
}

int ScriptedPlatform::proc_get_dirty(std::int32_t pid, std::uint32_t& flags) {
    const ScriptedProcess* process = _find(pid);
    if (process == nullptr || !process->hasFigures) return ESRCH;
    flags = process->dirtyFlags;
    return 0;
}

KernReturn ScriptedPlatform::mach_vm_region_recurse(TaskName task, std::uint64_t& address,
                                                    std::uint64_t& size, RegionInfoRecord& record) {
    ScriptedProcess& process = _ofTask(task);
    ++process.lookups;
    process.beforeLookup();
    if (process.lookupCode != kKernSuccess) return process.lookupCode;
    return _lookUp(process.regions, address, size, record);
}

KernReturn ScriptedPlatform::mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                            BasicRegionInfoRecord& record) {
    ScriptedProcess& process = _ofTask(task);
    process.topLookups.push_back(address);
    if (process.topLookups.size() > process.failingTopLookup) return process.topLookupCode;
    auto entries = process.regions;
    for (const auto& [start, map] : process.nestedMaps) {
        entries.erase(entries.lower_bound(start), entries.lower_bound(start + map.pages * kPage));
        entries[start] = map;
    }
    RegionInfoRecord info;
    const KernReturn code = _lookUp(entries, address, size, info);
    record = {info.protection, info.max_protection, info.inheritance,
              info.offset,     info.behavior,       info.user_wired_count};
    return code;
}

KernReturn ScriptedPlatform::mach_vm_page_range_query(TaskName task, std::uint64_t address,
                                                      std::uint64_t size, std::int32_t* dispositions,
                                                      std::uint64_t& count) {
    ScriptedProcess& process = _ofTask(task);
    process.pageQueries.emplace_back(address, count);
    if (process.pageQueries.size() > process.failingPageQuery) return kKernInvalidArgument;
    count = std::min(count, size / pageSize);
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto told = process.dispositions.find((address / pageSize + i) * pageSize);
        dispositions[i] = told == process.dispositions.end() ? 0 : told->second;
    }
    return kKernSuccess;
}

KernReturn ScriptedPlatform::mach_vm_purgable_control(TaskName task, std::uint64_t address, int& state) {
    state = _ofTask(task).regions.at(address).purgeable;
    return kKernSuccess;
}

Name ScriptedPlatform::proc_regionfilename(TaskName task, std::uint64_t address) {
    return _ofTask(task).regions.at(address).path;
}

KernReturn ScriptedPlatform::mach_memory_info(KernelMemoryAccount& account) {
    account = {zoneNames, zones, kernelRecords};
    return memoryInfoCode;
}

KernReturn ScriptedPlatform::vm_deallocate(const void* address, std::uint64_t size) {
    released.emplace_back(address, size);
    return deallocateCode;
}

std::optional<std::string> ScriptedPlatform::nameOfKernelSymbol(std::uint64_t address) {
    return valueAt(kernelSymbols, address);
}

std::optional<SourceLocation> ScriptedPlatform::sourceOfKernelAddress(std::uint64_t address) {
    return valueAt(kernelSources, address);
}

Result<std::unique_ptr<MemoryGraphReader>> ScriptedPlatform::openMemoryGraph(std::string_view contents) {
    auto graph = parseMemoryGraph(contents);
    if (graph) return std::make_unique<LoadedMemoryGraph>(*std::move(graph));
    return saysWhatIsWrongWithGraphs ? graph.error() : Error();
}

int ScriptedPlatform::sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) {
    if (std::string(name) != "vm.self_region_zorbel") return ENOENT;
    if (sysctlError != 0) return sysctlError;
    if (oldValue != nullptr) *oldValue = breakDownMode;
    if (newValue != nullptr) breakDownMode = *newValue;
    return 0;
}

std::string ScriptedPlatform::mach_error_string(KernReturn code) const {
    return code == kMachSendInvalidDest ? "invalid destination" : "failure";
}

KernReturn ScriptedPlatform::_lookUp(const std::map<std::uint64_t, ScriptedRegion>& regions,
                                     std::uint64_t& address, std::uint64_t& size, RegionInfoRecord& record) {
    for (const auto& [start, region] : regions) {
        if (start + (region.pages * kPage - 1) < address) continue;
        address = start;
        size = region.pages * kPage;
        record = region.info;
        return kKernSuccess;
    }
    return kKernInvalidAddress;
}

ScriptedProcess* ScriptedPlatform::_find(std::int32_t pid) {
    for (ScriptedProcess& process : _processes)
        if (process.pid == pid) return &process;
    return nullptr;
}

}  // namespace zorbel::test
