#pragma once

#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "inspect/ZBProcess.h"
#include "platform/Platform.h"

namespace zorbel::test {

/// Records the messages of a run.
class RecordedDiagnostics final : public Diagnostics {
  public:
    void report(std::string_view message) override;

    /// All messages since the last call, each ended by a newline.
    std::string take();
    [[nodiscard]] bool isAny();

  private:
    std::mutex _mutex;
    std::string _messages;
};

inline constexpr std::uint32_t kPage = 4096;
inline constexpr std::uint32_t kMallocTiny = 7;
inline constexpr std::uint32_t kStack = 30;
inline constexpr KernReturn kKernFailure = 5;

/// A stretch of memory of a scripted process. All counts are pages.
struct ScriptedRegion {
    std::uint64_t pages = 1;
    RegionInfoRecord info{};  ///< Has its own object by default.
    Name path{};              ///< A file always has a pager.
    int purgeable = kPurgeableDeny;
};

/// A process of a scripted machine. By default it is healthy.
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
    bool hasFigures = true;  ///< Whether these three can be read.
    std::map<std::uint64_t, ScriptedRegion> regions;
    /// Nested maps: a top-level look-up shows one entry in place of the regions inside.
    std::map<std::uint64_t, ScriptedRegion> nestedMaps;
    std::map<std::uint64_t, std::int32_t> dispositions;  ///< By page; the default is 0.
    std::vector<std::pair<Name, std::vector<SymbolSegment>>> images;
    int lookups = 0;
    /// Addresses of top-level look-ups and page queries, and the pages asked for.
    std::vector<std::uint64_t> topLookups;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> pageQueries;
    /// These fail from this index on.
    std::size_t failingTopLookup = SIZE_MAX;
    std::size_t failingPageQuery = SIZE_MAX;
    KernReturn topLookupCode = kKernFailure;
    /// Called on the worker that reads the process.
    std::function<void()> beforeReading = [] {};
    /// Called on the thread that looks up a region, after the look-up has been counted.
    std::function<void()> beforeLookup = [] {};

    ScriptedProcess& maps(std::uint64_t address, ScriptedRegion region) {
        // Different for all processes, and never one of the small numbers that tests choose.
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

/// A machine that a test describes: processes, their regions, and their failures. It answers like
/// a kernel: a look-up returns the first region that ends above the address, even if it starts below.
class ScriptedPlatform : public Platform, private Symbolicator {
  public:
    /// A process with 64-bit addresses whose executable is /usr/bin/NAME.
    ScriptedProcess& process(std::int32_t pid, const std::string& name);

    /// Opens all processes for inspection.
    Targets open();

    bool hasProcessList = true;
    std::int32_t breakDownMode = 0;
    int sysctlError = 0;
    std::uint32_t pageSize = kPage;
    /// Kind of the machine. The default is ARM with the word size of the processes.
    std::optional<ZBPlatform> kind;

    // The kernel's account of its own memory, and which parts were released.
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

    /// What was reported.
    RecordedDiagnostics messages;
    /// The phases of the run, such as "read 100" for a process.
    std::vector<std::string> phases;
    /// Whether the run went through a phase; may be called while it goes on.
    bool hasReached(const std::string& phase);

    Diagnostics& diagnostics() override { return messages; }

    std::uint32_t vm_kernel_page_size() const override { return pageSize; }

    ZBPlatform platformOfProcesses(bool is64bit) const override;

    Symbolicator& symbolicator() override { return *this; }

    void forEachSymbolOwner(TaskName task, const std::function<void(const SymbolOwner&)>& consume) override;

    bool proc_listallpids(std::vector<std::int32_t>& pids) override;

    bool proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) override;

    int proc_pidinfo(TaskName task, BsdShortInfoRecord& record) override;

    bool sysctl_procargs(std::int32_t pid, std::string& area) override;

    bool sysctl_procargs(TaskName task, std::string& area) override;

    KernReturn task_for_pid(std::int32_t pid, TaskName& task) override;

    KernReturn mach_ports_lookup(std::vector<TaskName>& ports) override;

    KernReturn task_info(TaskName task, KernelMemoryRecord& record) override;

    int proc_pid_rusage(TaskName task, ResourceUsageRecord& record) override;

    int proc_get_dirty(std::int32_t pid, std::uint32_t& flags) override;

    void readTask(TaskName task) override;

    void settleTasks() override { _note("settle"); }

    void forgetTask(TaskName task) override { _note("forget " + std::to_string(task)); }

    KernReturn mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                      RegionInfoRecord& record) override;

    KernReturn mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                              BasicRegionInfoRecord& record) override;

    KernReturn mach_vm_page_range_query(TaskName task, std::uint64_t address, std::uint64_t size,
                                        std::int32_t* dispositions, std::uint64_t& count) override;

    KernReturn mach_vm_purgable_control(TaskName task, std::uint64_t address, int& state) override;

    Name proc_regionfilename(TaskName task, std::uint64_t address) override;

    KernReturn mach_memory_info(KernelMemoryAccount& account) override;

    KernReturn vm_deallocate(const void* address, std::uint64_t size) override;

    std::vector<KernelModuleInfo> OSKextCopyLoadedKextInfo() override { return modules; }

    std::optional<std::string> nameOfKernelSymbol(std::uint64_t address) override;

    std::optional<SourceLocation> sourceOfKernelAddress(std::uint64_t address) override;

    Result<std::unique_ptr<MemoryGraphReader>> openMemoryGraph(std::string_view contents) override;

    int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) override;

    std::string mach_error_string(KernReturn code) const override;

  private:
    void _note(std::string phase);

    /// The first that ends above the address. Compares last bytes, since the end of the last region may be 0.
    static KernReturn _lookUp(const std::map<std::uint64_t, ScriptedRegion>& regions, std::uint64_t& address,
                              std::uint64_t& size, RegionInfoRecord& record);

    ScriptedProcess* _find(std::int32_t pid);
    ScriptedProcess& _ofTask(TaskName task) { return *_find(static_cast<std::int32_t>(task)); }

    std::deque<ScriptedProcess> _processes;
    std::mutex _mutex;  ///< Of the phases.
};

}  // namespace zorbel::test
