#pragma once

#include <gmock/gmock.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <map>

#include "aggregate/ZBZorbel.h"
#include "inspect/memgraph/MemoryGraph.h"

namespace zorbel::test {

using namespace testing;

inline constexpr std::uint32_t kPage = 4096;
inline constexpr std::uint32_t kMallocTiny = 7;
inline constexpr std::uint32_t kStack = 30;
inline constexpr KernReturn kKernFailure = 5;

/// A stretch of memory of a scripted process. All counts are pages.
struct ScriptedRegion {
    std::uint64_t pages = 1;
    RegionInfoRecord info{};  ///< Memory of its own unless an object is told.
    Name path{};              ///< A file has a pager without being told.
    int purgeable = kPurgeableDeny;
};

/// A process of a scripted machine. What is not told is as with any healthy process.
struct ScriptedProcess {
    std::int32_t pid = 0;
    std::int32_t parent = 1;
    std::uint32_t flags = BsdInfoRecord::kFlag64Bit;
    std::optional<std::string> argumentArea;
    bool hasRecord = true;
    KernReturn openCode = kKernSuccess;
    KernReturn lookupCode = kKernSuccess;
    int shortRecordError = 0;
    std::uint32_t state = BsdShortInfoRecord::kStateRunning;
    KernelMemoryRecord kernelMemory;
    ResourceUsageRecord charges;
    std::uint32_t dirtyFlags = 0;
    bool hasFigures = true;  ///< Whether the three can be read.
    std::map<std::uint64_t, ScriptedRegion> regions;
    /// Maps that are nested into the process: one entry from the top, in place of the regions inside.
    std::map<std::uint64_t, ScriptedRegion> nestedMaps;
    std::map<std::uint64_t, std::int32_t> dispositions;  ///< By page; 0 where none is told.
    std::vector<std::pair<Name, std::vector<SymbolSegment>>> images;
    int lookups = 0;
    /// Where top-level look-ups and page queries were asked for, and for how many pages.
    std::vector<std::uint64_t> topLookups;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> pageQueries;
    /// These fail from the one with that index on.
    std::size_t failingTopLookup = SIZE_MAX;
    std::size_t failingPageQuery = SIZE_MAX;
    KernReturn topLookupCode = kKernFailure;
    /// Called on the thread that looks a region up, once the look-up has been counted.
    std::function<void()> beforeLookup = [] {};

    ScriptedProcess& maps(std::uint64_t address, ScriptedRegion region) {
        // No two processes come to the same number, and none to the small ones that tests choose.
        if (region.info.object_id == 0)
            region.info.object_id =
                static_cast<std::uint32_t>((static_cast<std::size_t>(pid) << 12) + 0x800 + regions.size());
        if (region.path.isPresent()) region.info.external_pager = 1;
        regions[address] = region;
        return *this;
    }

    ScriptedProcess& loads(const char* path, std::vector<SymbolSegment> segments) {
        images.emplace_back(Name(path), std::move(segments));
        return *this;
    }
};

/// A machine that a test writes down: processes, their regions, and what goes wrong with them. It answers as
/// a kernel does: a look-up yields the first region that ends above the address, where it begins below too.
class ScriptedPlatform : public Platform, private Symbolicator {
  public:
    /// A process with 64-bit addresses whose executable is /usr/bin/NAME.
    ScriptedProcess& process(std::int32_t pid, const std::string& name) {
        ScriptedProcess& process = _processes.emplace_back();
        process.pid = pid;
        process.argumentArea = std::string("\2\0\0\0", 4) + "/usr/bin/" + name + '\0' + '\0' + name + '\0';
        return process;
    }

    /// Opens all processes for inspection.
    std::vector<std::unique_ptr<ZBProcess>> open() {
        std::vector<std::unique_ptr<ZBProcess>> opened;
        for (const ScriptedProcess& process : _processes)
            if (auto made = ZBProcess::processWithPid(*this, process.pid)) opened.push_back(std::move(made));
        return opened;
    }

    bool hasProcessList = true;
    std::int32_t breakDownMode = 0;
    int sysctlError = 0;
    std::uint32_t pageSize = kPage;
    /// Kind of the machine; where none is told, ARM of the processes' word size.
    std::optional<ZBPlatform> kind;

    // The kernel's account of its own memory, and what was given back of it.
    std::vector<ZoneNameRecord> zoneNames;
    std::vector<ZoneInfoRecord> zones;
    std::vector<MemoryInfoRecord> kernelRecords;
    KernReturn memoryInfoCode = kKernSuccess;
    KernReturn deallocateCode = kKernSuccess;
    std::vector<std::pair<const void*, std::uint64_t>> released;
    std::vector<KernelModuleInfo> modules;
    std::map<std::uint64_t, std::string> kernelSymbols;
    std::map<std::uint64_t, SourceLocation> kernelSources;

    bool saysWhatIsWrongWithGraphs = true;

    // Tasks have the numbers of their processes.
    std::vector<TaskName> handedOver;
    KernReturn handedOverCode = kKernSuccess;

    std::uint32_t vm_kernel_page_size() const override { return pageSize; }

    ZBPlatform platformOfProcesses(bool is64bit) const override {
        return kind.value_or(is64bit ? ZBPlatform::kARM64 : ZBPlatform::kARM);
    }

    Symbolicator& symbolicator() override { return *this; }

    void forEachSymbolOwner(TaskName task, const std::function<void(const SymbolOwner&)>& consume) override {
        for (const auto& [path, segments] : _ofTask(task).images) consume({path, segments});
    }

    bool proc_listallpids(std::vector<std::int32_t>& pids) override {
        for (const ScriptedProcess& process : _processes) pids.push_back(process.pid);
        return hasProcessList;
    }

    bool proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) override {
        const ScriptedProcess* process = _find(pid);
        if (process == nullptr || !process->hasRecord) return false;
        record.pbi_flags = process->flags;
        record.pbi_pid = static_cast<std::uint32_t>(pid);
        record.pbi_ppid = static_cast<std::uint32_t>(process->parent);
        return true;
    }

    int proc_pidinfo(TaskName task, BsdShortInfoRecord& record) override {
        record.pbsi_status = _ofTask(task).state;
        return _ofTask(task).shortRecordError;
    }

    bool sysctl_procargs(std::int32_t pid, std::string& area) override {
        const ScriptedProcess* process = _find(pid);
        if (process == nullptr || !process->argumentArea) return false;
        area = *process->argumentArea;
        return true;
    }

    KernReturn task_for_pid(std::int32_t pid, TaskName& task) override {
        task = static_cast<TaskName>(pid);
        return _find(pid)->openCode;
    }

    KernReturn mach_ports_lookup(std::vector<TaskName>& ports) override {
        ports = handedOver;
        return handedOverCode;
    }

    KernReturn task_info(TaskName task, KernelMemoryRecord& record) override {
        if (_find(static_cast<std::int32_t>(task)) == nullptr) return kKernFailure;
        record = _ofTask(task).kernelMemory;
        return _ofTask(task).hasFigures ? kKernSuccess : kKernFailure;
    }

    int proc_pid_rusage(TaskName task, ResourceUsageRecord& record) override {
        record = _ofTask(task).charges;
        return _ofTask(task).hasFigures ? 0 : ESRCH;
    }

    int proc_get_dirty(std::int32_t pid, std::uint32_t& flags) override {
        const ScriptedProcess* process = _find(pid);
        if (process == nullptr || !process->hasFigures) return ESRCH;
        flags = process->dirtyFlags;
        return 0;
    }

    KernReturn mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                      RegionInfoRecord& record) override {
        ScriptedProcess& process = _ofTask(task);
        ++process.lookups;
        process.beforeLookup();
        if (process.lookupCode != kKernSuccess) return process.lookupCode;
        return _lookUp(process.regions, address, size, record);
    }

    KernReturn mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                              BasicRegionInfoRecord& record) override {
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

    KernReturn mach_vm_page_range_query(TaskName task, std::uint64_t address, std::uint64_t size,
                                        std::int32_t* dispositions, std::uint64_t& count) override {
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

    KernReturn mach_vm_purgable_control(TaskName task, std::uint64_t address, int& state) override {
        state = _ofTask(task).regions.at(address).purgeable;
        return kKernSuccess;
    }

    Name proc_regionfilename(TaskName task, std::uint64_t address) override {
        return _ofTask(task).regions.at(address).path;
    }

    KernReturn mach_memory_info(KernelMemoryAccount& account) override {
        account = {zoneNames, zones, kernelRecords};
        return memoryInfoCode;
    }

    KernReturn vm_deallocate(const void* address, std::uint64_t size) override {
        released.emplace_back(address, size);
        return deallocateCode;
    }

    std::vector<KernelModuleInfo> OSKextCopyLoadedKextInfo() override { return modules; }

    std::optional<std::string> nameOfKernelSymbol(std::uint64_t address) override {
        return valueAt(kernelSymbols, address);
    }

    std::optional<SourceLocation> sourceOfKernelAddress(std::uint64_t address) override {
        return valueAt(kernelSources, address);
    }

    std::unique_ptr<MemoryGraphReader> openMemoryGraph(std::string_view contents,
                                                       PlatformError& error) override {
        PlatformError reason;
        auto graph = parseMemoryGraph(contents, reason);
        if (graph) return std::make_unique<LoadedMemoryGraph>(*std::move(graph));
        if (saysWhatIsWrongWithGraphs) error = reason;
        return nullptr;
    }

    int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) override {
        if (std::string(name) != "vm.self_region_zorbel") return ENOENT;
        if (sysctlError != 0) return sysctlError;
        if (oldValue != nullptr) *oldValue = breakDownMode;
        if (newValue != nullptr) breakDownMode = *newValue;
        return 0;
    }

    std::string mach_error_string(KernReturn code) const override {
        return code == kMachSendInvalidDest ? "invalid destination" : "failure";
    }

  private:
    template <typename Value>
    static std::optional<Value> valueAt(const std::map<std::uint64_t, Value>& values, std::uint64_t key) {
        const auto found = values.find(key);
        return found == values.end() ? std::nullopt : std::optional(found->second);
    }

    /// The first that ends above the address: by its last byte, since the end of the last of all may be 0.
    static KernReturn _lookUp(const std::map<std::uint64_t, ScriptedRegion>& regions, std::uint64_t& address,
                              std::uint64_t& size, RegionInfoRecord& record) {
        for (const auto& [start, region] : regions) {
            if (start + (region.pages * kPage - 1) < address) continue;
            address = start;
            size = region.pages * kPage;
            record = region.info;
            return kKernSuccess;
        }
        return kKernInvalidAddress;
    }

    ScriptedProcess* _find(std::int32_t pid) {
        for (ScriptedProcess& process : _processes)
            if (process.pid == pid) return &process;
        return nullptr;
    }
    ScriptedProcess& _ofTask(TaskName task) { return *_find(static_cast<std::int32_t>(task)); }

    std::deque<ScriptedProcess> _processes;
};

/// A target whose regions and further data a test lays down itself, for what no walk yields.
class FixedProcess : public ZBProcess {
  public:
    FixedProcess(Platform& platform, std::int32_t pid) : ZBProcess(platform) {
        _pid = pid;
        _name = "fixed" + std::to_string(pid);
        _displayString = _name + " [" + std::to_string(pid) + "]";
        _pageSize = kPage;
        _is64bit = true;
    }

    using ZBProcess::_errors;
    using ZBProcess::_is64bit;
    using ZBProcess::_warnings;
    std::shared_ptr<const ZBAuxDataDictionary> figures;

    /// A region of one page that maps the start of an object. The next call may move it.
    ZBMemoryRegion& add(const char* name, std::uint64_t objectId, std::uint64_t dirtyBytes) {
        ZBMemoryRegion& region = _memoryRegions.emplace_back();
        region.setName(Name(name));
        region.setObject_id(objectId);
        region.setDirtySize(dirtyBytes);
        region.setSize(kPage);
        region.setSegment(SegmentCode::kNotInImage);
        return region;
    }

    std::shared_ptr<const ZBAuxDataDictionary> auxData() const override { return figures; }
};

/// A scripted machine with one process, which is inspected.
class WalkTest : public Test {
  protected:
    /// Inspects the process and keeps what it says on standard error.
    void gather() {
        baker.lookups = 0;
        baker.topLookups.clear();
        baker.pageQueries.clear();
        testing::internal::CaptureStderr();
        process = std::move(machine.open().front());
        process->gatherData();
        said = testing::internal::GetCapturedStderr();
    }

    std::vector<std::uint64_t> starts() const {
        std::vector<std::uint64_t> all;
        for (const ZBMemoryRegion& region : process->memoryRegions()) all.push_back(region.start());
        return all;
    }

    ScriptedPlatform machine;
    ScriptedProcess& baker = machine.process(100, "baker");
    std::unique_ptr<ZBProcess> process;
    std::string said;
};

/// A scripted machine, and a coordinator of its processes or of fixed ones.
class CoordinatorTest : public Test {
  protected:
    ~CoordinatorTest() override { ZBProcess::_clearGlobalErrors(); }

    FixedProcess& fixed(std::int32_t pid) {
        processes.push_back(std::make_unique<FixedProcess>(machine, pid));
        return static_cast<FixedProcess&>(*processes.back());
    }

    /// Gathers the fixed processes, or those of the machine if there are none.
    void gather() {
        zorbel = std::make_unique<ZBZorbel>(processes.empty() ? machine.open() : std::move(processes));
        processes.clear();
        zorbel->gatherData();
    }

    ScriptedPlatform machine;
    std::vector<std::unique_ptr<ZBProcess>> processes;
    std::unique_ptr<ZBZorbel> zorbel;
};

}  // namespace zorbel::test
