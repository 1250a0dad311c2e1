#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Diagnostics.h"
#include "base/Error.h"
#include "base/Name.h"
#include "platform/KernelRecords.h"
#include "platform/MemoryGraphReader.h"
#include "platform/Records.h"
#include "platform/Symbolicator.h"

namespace zorbel {

/// A kernel return code. Codes from 0xC000 on are 0xC000 + errno.
using KernReturn = std::uint32_t;
inline constexpr KernReturn kKernSuccess = 0;
inline constexpr KernReturn kKernInvalidAddress = 1;  ///< There is no region at or above the address.
inline constexpr KernReturn kKernInvalidArgument = 4;
inline constexpr KernReturn kMachSendInvalidDest = 0x10000003;  ///< The task has no address space any more.

constexpr KernReturn kernReturnFromErrno(int error) { return 0xC000 + static_cast<KernReturn>(error); }

/// Everything that the inspectors need to know about a machine. The functions have the form of the kernel
/// calls that the inspectors were written for.
///
/// A run calls them in phases. First, one thread finds and opens the targets: it makes the calls that take a
/// pid, and task_for_pid, mach_ports_lookup, sysctl_procargs, task_info and proc_pid_rusage. Then workers
/// read the tasks in parallel, each task once (readTask). After that, one thread settles what depends on all
/// tasks (settleTasks). Then workers walk the tasks with the other calls, each task on one worker, and end
/// with forgetTask.
class Platform {
  public:
    Platform() = default;
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;
    virtual ~Platform() = default;

    /// Prints messages for the user.
    [[nodiscard]] virtual Diagnostics& diagnostics() = 0;

    /// Page size of the kernel in bytes; a power of two.
    [[nodiscard]] virtual std::uint32_t vm_kernel_page_size() const = 0;

    /// The kind of machine on which live processes of this word size run.
    [[nodiscard]] virtual ZBPlatform platformOfProcesses(bool is64bit) const = 0;

    /// Knows the images that the tasks of this machine have loaded.
    virtual Symbolicator& symbolicator() = 0;

    /// All pids of the system, in the order in which names are resolved. False if the list is not available.
    virtual bool proc_listallpids(std::vector<std::int32_t>& pids) = 0;

    /// Says which processes are looked up and opened next, so that a platform may read ahead.
    virtual void willOpen(const std::vector<std::int32_t>& /*pids*/) {}

    /// The record of a process. False if it does not exist or can't be read.
    virtual bool proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) = 0;

    /// The short record of the task's process. Returns 0 or an errno; ESRCH after the process has gone.
    virtual int proc_pidinfo(TaskName task, BsdShortInfoRecord& record) = 0;

    /// The saved argument area of a process: a 4-byte count, the executable's path, padding zeros, arguments.
    /// A platform may leave out everything after the path's terminator. False if it can't be read.
    virtual bool sysctl_procargs(std::int32_t pid, std::string& area) = 0;
    /// The same for an open process, whose pid may already belong to another process.
    virtual bool sysctl_procargs(TaskName task, std::string& area) = 0;

    /// Opens a process. On failure, task is kTaskNull.
    virtual KernReturn task_for_pid(std::int32_t pid, TaskName& task) = 0;

    /// The tasks that our parent has passed to us.
    virtual KernReturn mach_ports_lookup(std::vector<TaskName>& ports) = 0;

    /// The kernel's memory for a task. On failure, the record may be unchanged.
    virtual KernReturn task_info(TaskName task, KernelMemoryRecord& record) = 0;

    /// The bytes charged to the task's process, now and at their peak. Returns 0 or an errno; on failure, the
    /// record may be unchanged.
    virtual int proc_pid_rusage(TaskName task, ResourceUsageRecord& record) = 0;

    /// Whether the system may end the process while it is idle (kProcDirty bits). Returns 0 or an errno; on
    /// failure, flags is unchanged.
    virtual int proc_get_dirty(std::int32_t pid, std::uint32_t& flags) = 0;

    /// Reads what must be read at once about a task's memory. The look-ups below use this data and fail if
    /// the task can't be read.
    virtual void readTask(TaskName task) = 0;

    /// Finds out what depends on all tasks, such as which of them share a page. Called after all are read.
    virtual void settleTasks() = 0;

    /// What tells the task's process apart from others with its name. False if nothing is known.
    virtual bool proc_details(TaskName /*task*/, ProcessDetails& /*details*/) { return false; }

    /// Frees what readTask has stored. No look-up may follow.
    virtual void forgetTask(TaskName task) = 0;

    /// The first leaf region that ends above the address. Sets address to the region's start, which may be
    /// lower. kKernInvalidAddress if there is none, kMachSendInvalidDest if the process has exited.
    virtual KernReturn mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                              RegionInfoRecord& record) = 0;

    /// The same for top-level entries, where a nested map is one entry.
    virtual KernReturn mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                      BasicRegionInfoRecord& record) = 0;

    /// The dispositions (kPageQuery bits) of pages, from the page with the address on: at most size bytes and
    /// at most count pages. 0 for a page that is not mapped. Sets count to the number written.
    /// kKernInvalidArgument if the process has exited.
    virtual KernReturn mach_vm_page_range_query(TaskName task, std::uint64_t address, std::uint64_t size,
                                                std::int32_t* dispositions, std::uint64_t& count) = 0;

    /// The purgeable state of the region at the address.
    virtual KernReturn mach_vm_purgable_control(TaskName task, std::uint64_t address, int& state) = 0;

    /// Path of the file mapped at the address, printable; absent if there is none.
    virtual Name proc_regionfilename(TaskName task, std::uint64_t address) = 0;

    /// The kernel's account of its own memory. Give each array back with vm_deallocate.
    virtual KernReturn mach_memory_info(KernelMemoryAccount& account) = 0;

    /// Gives back an array of this many bytes.
    virtual KernReturn vm_deallocate(const void* address, std::uint64_t size) = 0;

    /// The loaded kernel modules; empty if unknown.
    virtual std::vector<KernelModuleInfo> OSKextCopyLoadedKextInfo() = 0;

    /// Opens a saved memory graph from the contents of its file, which are not used after the call. Object
    /// ids are comparable only within the live processes, or within the graphs of one capture. Fails if this
    /// is no graph; the error has no domain if the reason is unknown.
    virtual Result<std::unique_ptr<MemoryGraphReader>> openMemoryGraph(std::string_view contents) = 0;

    /// Reads an integer setting of the tool's own process, and sets it if newValue is given. Returns 0 or an
    /// errno: ENOENT if the system has no such setting.
    virtual int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) = 0;

    /// The system's text for a return code.
    [[nodiscard]] virtual std::string mach_error_string(KernReturn code) const = 0;

    /// Reports the prefix and the code's text.
    void mach_error(const char* prefix, KernReturn code) {
        diagnostics().report(std::string(prefix) + ": " + mach_error_string(code));
    }
};

}  // namespace zorbel
