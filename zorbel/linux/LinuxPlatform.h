#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Files.h"
#include "linux/TaskSnapshot.h"
#include "linux/kernel/KernelMemory.h"
#include "linux/kinds/FileSystems.h"
#include "linux/kinds/ObjectIds.h"
#include "linux/process/ProcessStatus.h"
#include "linux/process/SystemRoot.h"
#include "platform/Platform.h"
#include "platform/Symbolicator.h"

namespace zorbel {

/// The machine we run on, as /proc shows it.
class LinuxPlatform : public Platform, private Symbolicator {
  public:
    /// Raises the soft limit of open files to the hard one: every target holds a descriptor. The diagnostics
    /// are lent.
    explicit LinuxPlatform(Diagnostics& diagnostics, SystemRoot root = {});
    ~LinuxPlatform() override;

    Diagnostics& diagnostics() override { return _diagnostics; }

    [[nodiscard]] std::uint32_t vm_kernel_page_size() const override;

    [[nodiscard]] ZBPlatform platformOfProcesses(bool /*is64bit*/) const override {
        return ZBPlatform::kLinux;
    }
    Symbolicator& symbolicator() override { return *this; }

    /// Pid 0, which stands for the kernel, and the entries of /proc in ascending order. Kernel threads are
    /// among them but have no record.
    bool proc_listallpids(std::vector<std::int32_t>& pids) override;
    /// From /proc/PID/stat.
    bool proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) override;
    /// From /proc/PID/stat.
    int proc_pidinfo(TaskName task, BsdShortInfoRecord& record) override;
    /// The path only, from /proc/PID/exe.
    bool sysctl_procargs(std::int32_t pid, std::string& area) override;
    bool sysctl_procargs(TaskName task, std::string& area) override;

    /// Succeeds when the process's maps can be opened, and for a process that has just exited too: its walk
    /// will say so. Otherwise an errno's code.
    KernReturn task_for_pid(std::int32_t pid, TaskName& task) override;

    /// The first descriptor that is handed over as service managers do it (LISTEN_FDS, LISTEN_PID), where it
    /// is a directory on /proc/PID of a process that has memory.
    KernReturn mach_ports_lookup(std::vector<TaskName>& ports) override;

    /// From /proc/PID/status, read once for both: the page tables and the stacks that threads have in the
    /// kernel; nothing of that counts as freed, nor as shared.
    KernReturn task_info(TaskName task, KernelMemoryRecord& record) override;
    /// Anonymous and shared memory that is resident, anonymous memory in swap, and huge pages. The kernel
    /// keeps no peak of that: the most that was resident stands for it.
    int proc_pid_rusage(TaskName task, ResourceUsageRecord& record) override;
    /// Linux ends no idle processes.
    int proc_get_dirty(std::int32_t pid, std::uint32_t& flags) override;

    /// Takes a snapshot of /proc/PID/smaps, and finds the images in it.
    void readTask(TaskName task) override;
    /// Nothing yet depends on several tasks.
    void settleTasks() override {}
    void forgetTask(TaskName task) override;

    /// From the snapshot.
    KernReturn mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                      RegionInfoRecord& record) override;
    /// No map is nested into another: the leaf region.
    KernReturn mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                              BasicRegionInfoRecord& record) override;
    /// From /proc/PID/pagemap.
    KernReturn mach_vm_page_range_query(TaskName task, std::uint64_t address, std::uint64_t size,
                                        std::int32_t* dispositions, std::uint64_t& count) override;
    /// From the ELF files that the snapshot's regions map.
    void forEachSymbolOwner(TaskName task, const std::function<void(const SymbolOwner&)>& consume) override;
    /// Linux has no purgeable memory.
    KernReturn mach_vm_purgable_control(TaskName task, std::uint64_t address, int& state) override;
    Name proc_regionfilename(TaskName task, std::uint64_t address) override;

    /// From slabinfo, vmallocinfo, allocinfo, modules, meminfo and zoneinfo under /proc, and the statistics
    /// of zram.
    KernReturn mach_memory_info(KernelMemoryAccount& account) override;
    KernReturn vm_deallocate(const void* address, std::uint64_t size) override;
    /// From /proc/modules, as the account was made.
    std::vector<KernelModuleInfo> OSKextCopyLoadedKextInfo() override;
    std::optional<std::string> nameOfKernelSymbol(std::uint64_t address) override;
    /// From /proc/allocinfo, which few kernels have.
    std::optional<SourceLocation> sourceOfKernelAddress(std::uint64_t address) override;

    /// Files of zorbel-capture.
    Result<std::unique_ptr<MemoryGraphReader>> openMemoryGraph(std::string_view contents) override;

    int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) override;
    [[nodiscard]] std::string mach_error_string(KernReturn code) const override;

  private:
    /// An opened process. Where descriptors are short it has none of its own: its start time tells then
    /// whether the process with its pid is still the same.
    struct Task {
        std::int32_t pid = 0;
        std::uint64_t startTime = 0;
        FileDescriptor directory;
        std::optional<ProcessStatus> status;
        std::unique_ptr<TaskSnapshot> snapshot;
    };
    class TaskDirectory;

    Task& _taskNamed(TaskName task) { return _tasks[task - 1]; }
    /// Null when the process has no memory any more, and for kTaskNull.
    const ProcessStatus* _statusOf(TaskName name);

    Diagnostics& _diagnostics;
    SystemRoot _root;
    FileSystems _fileSystems;
    ElfFiles _elfFiles;
    ObjectIds _objectIds;
    std::unique_ptr<KernelMemory> _kernelMemory;  ///< Once the kernel has been asked.
    /// Grows only while processes are opened, before any of them is gathered.
    std::deque<Task> _tasks;
    /// Descriptors from this number on are not kept.
    int _mostDescriptors = 0;
    std::int32_t _selfRegionZorbel = 0;
};

}  // namespace zorbel
