#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/Files.h"
#include "linux/TaskSnapshot.h"
#include "linux/kernel/KernelMemory.h"
#include "linux/kinds/FileSystems.h"
#include "linux/kinds/ObjectIds.h"
#include "linux/pages/Families.h"
#include "linux/process/ProcessStat.h"
#include "linux/process/ProcessStatus.h"
#include "linux/process/SystemRoot.h"
#include "linux/process/Users.h"
#include "platform/Platform.h"
#include "platform/Symbolicator.h"

namespace zorbel {

/// The machine that zorbel runs on, read from /proc.
class LinuxPlatform : public Platform, private Symbolicator {
  public:
    /// Raises the soft limit of open files to the hard limit, since every target holds a descriptor. The
    /// diagnostics must outlive this object.
    explicit LinuxPlatform(Diagnostics& diagnostics, SystemRoot root = {});
    ~LinuxPlatform() override;

    Diagnostics& diagnostics() override { return _diagnostics; }

    [[nodiscard]] std::uint32_t vm_kernel_page_size() const override;

    [[nodiscard]] ZBPlatform platformOfProcesses(bool /*is64bit*/) const override {
        return ZBPlatform::kLinux;
    }
    Symbolicator& symbolicator() override { return *this; }

    /// Pid 0, which stands for the kernel, and then the entries of /proc in ascending order. Includes kernel
    /// threads, but proc_pidinfo fails for them.
    bool proc_listallpids(std::vector<std::int32_t>& pids) override;
    /// Reads all that the following calls need, with a thread for each processor.
    void willOpen(const std::vector<std::int32_t>& pids) override;
    /// From /proc/PID/stat.
    bool proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) override;
    /// From /proc/PID/stat.
    int proc_pidinfo(TaskName task, BsdShortInfoRecord& record) override;
    /// The path only, from /proc/PID/exe.
    bool sysctl_procargs(std::int32_t pid, std::string& area) override;
    bool sysctl_procargs(TaskName task, std::string& area) override;

    /// Succeeds if the process's maps can be opened, and also if the process has just exited: its walk
    /// reports that. Otherwise returns the errno as a code.
    KernReturn task_for_pid(std::int32_t pid, TaskName& task) override;

    /// The first descriptor passed in the way of service managers (LISTEN_FDS, LISTEN_PID). It must be a
    /// directory /proc/PID of a process that still has memory.
    KernReturn mach_ports_lookup(std::vector<TaskName>& ports) override;

    /// From /proc/PID/status, read once for this and proc_pid_rusage. Allocated memory is page tables and the
    /// kernel stacks of threads; none of it is reported as freed or shared.
    KernReturn task_info(TaskName task, KernelMemoryRecord& record) override;
    /// From /proc/PID/status: resident anonymous and shared memory, swapped anonymous memory, and huge pages.
    /// The kernel keeps no peak of this sum, so the peak resident size is used, or the sum if larger.
    int proc_pid_rusage(TaskName task, ResourceUsageRecord& record) override;
    /// Linux does not end idle processes.
    int proc_get_dirty(std::int32_t pid, std::uint32_t& flags) override;

    /// From /proc/PID/maps, the page tables, and the ELF files that are mapped. smaps is read where the
    /// kernel can't scan page tables, and where a process may have locked or lazily freed pages.
    void readTask(TaskName task) override;
    void settleTasks() override;
    /// From /proc/PID/stat and cgroup, /etc/passwd, and as much of the command line as is in memory.
    bool proc_details(TaskName task, ProcessDetails& details) override;
    void forgetTask(TaskName task) override;

    /// From the snapshot.
    KernReturn mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                      RegionInfoRecord& record) override;
    /// Same as the leaf region: Linux has no nested maps.
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

    /// From slabinfo, vmallocinfo, allocinfo, modules, meminfo and zoneinfo in /proc, and mm_stat of zram
    /// devices.
    KernReturn mach_memory_info(KernelMemoryAccount& account) override;
    KernReturn vm_deallocate(const void* address, std::uint64_t size) override;
    /// From /proc/modules, as read by mach_memory_info; empty before.
    std::vector<KernelModuleInfo> OSKextCopyLoadedKextInfo() override;
    std::optional<std::string> nameOfKernelSymbol(std::uint64_t address) override;
    /// From /proc/allocinfo, which few kernels have.
    std::optional<SourceLocation> sourceOfKernelAddress(std::uint64_t address) override;

    /// Reads files that zorbel-capture has written.
    Result<std::unique_ptr<MemoryGraphReader>> openMemoryGraph(std::string_view contents) override;

    int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) override;
    [[nodiscard]] std::string mach_error_string(KernReturn code) const override;

  private:
    /// An opened process. If descriptors are short, it holds none. Its start time then shows whether its pid
    /// still belongs to the same process.
    struct Task {
        std::int32_t pid = 0;
        std::uint64_t startTime = 0;
        FileDescriptor directory;
        std::uint64_t stackStart = 0;  ///< 0 where it is not known.
        std::int32_t thread = 0;       ///< One that has the memory of the process; 0 if none is known.
        std::optional<ProcessStatus> status;
        std::string program;                 ///< Path, if it was read ahead.
        const Lineages* lineages = nullptr;  ///< Where its pages are noted.
        std::unique_ptr<TaskSnapshot> snapshot;
    };
    /// The /proc directory of a task. If the task keeps none, opens it for the lifetime of this object.
    class TaskDirectory {
      public:
        TaskDirectory(const Task& task, const SystemRoot& root);

        /// -1 if the process is gone; never AT_FDCWD or the directory of another process.
        [[nodiscard]] int get() const { return _fd; }

      private:
        FileDescriptor _opened;
        int _fd;
    };

    /// What was read about a process ahead of its opening.
    struct ProcessAhead {
        std::optional<ProcessStat> stat;
        KernReturn code = kKernSuccess;
        Task task;
    };

    /// Opens the process; without its place among the tasks.
    KernReturn _open(std::int32_t pid, Task& task) const;
    ProcessAhead _readAhead(std::int32_t pid) const;
    /// Also finds the thread that has the memory.
    void _readStatus(Task& task) const;

    Task& _taskNamed(TaskName task) { return _tasks[task - 1]; }
    /// Null if the process no longer has memory, and for kTaskNull.
    const ProcessStatus* _statusOf(TaskName name);

    [[nodiscard]] SnapshotServices _services() {
        return {_fileIdentifier, _elfFiles, _objectIds, _sharedFiles, _frameFlags, _pageAccess};
    }
    void _prepareReading();
    [[nodiscard]] SmapsUse _useOfSmaps(const Task& task) const;

    Diagnostics& _diagnostics;
    SystemRoot _root;
    /// Tasks and files keep only descriptors below this number.
    int _mostDescriptors;
    FileSystems _fileSystems;
    FileIdentifier _fileIdentifier{_fileSystems};
    ElfFiles _elfFiles;
    Users _users;
    std::once_flag _isBootTimeRead;
    std::uint64_t _bootTime = 0;  ///< Seconds since 1970.
    ObjectIds _objectIds;
    SharedFiles _sharedFiles;
    FrameFlags _frameFlags;
    std::once_flag _isReadingPrepared;
    std::optional<Families> _families;  ///< Of the tasks, from the first reading on.
    PageAccess _pageAccess;
    bool _mergesPages = false;              ///< Whether KSM has merged pages of any process.
    std::uint64_t _mostLazyPages = 0;       ///< How many pages of all processes may be lazily freed.
    bool _hasLazyPages = false;             ///< Whether any page ever was.
    std::vector<std::int32_t> _listedPids;  ///< Ascending. All are processes, not threads.
    /// By pid, from the records of processes.
    std::unordered_map<std::int32_t, std::uint64_t> _stackStarts;
    std::unordered_map<std::int32_t, ProcessAhead> _ahead;  ///< By pid, until they are opened.
    std::uint64_t _kernelPagesOfTasks = 0;                  ///< Of the kernel's memory, those that tasks map.
    std::unique_ptr<KernelMemory> _kernelMemory;            ///< Null until mach_memory_info is called.
    /// Grows only while processes are opened, before any of them is read.
    std::deque<Task> _tasks;
    std::int32_t _selfRegionZorbel = 0;
};

}  // namespace zorbel
