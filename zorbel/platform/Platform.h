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

/// A kernel return code. Codes from 0xC000 on are errno values, offset by that number.
using KernReturn = std::uint32_t;
inline constexpr KernReturn kKernSuccess = 0;
inline constexpr KernReturn kKernInvalidAddress = 1;  ///< A look-up found nothing at or after the address.
inline constexpr KernReturn kKernInvalidArgument = 4;
inline constexpr KernReturn kMachSendInvalidDest = 0x10000003;  ///< The task no longer has an address space.

constexpr KernReturn kernReturnFromErrno(int error) { return 0xC000 + static_cast<KernReturn>(error); }

/// Everything that the inspectors ask of a machine, in the terms of the kernel calls that they are written
/// against.
///
/// A run asks in phases. First, on one thread, targets are found and opened: calls that take a pid, and
/// task_for_pid, mach_ports_lookup, sysctl_procargs, task_info and proc_pid_rusage. Then workers read the
/// tasks, each task once and several at the same time (readTask). When all are read, one thread settles what
/// depends on all of them (settleTasks). Then workers walk the tasks: the other calls that take a task, all
/// calls for one task from one worker, and forgetTask at its end.
class Platform {
  public:
    Platform() = default;
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;
    virtual ~Platform() = default;

    /// Where messages for the user go.
    [[nodiscard]] virtual Diagnostics& diagnostics() = 0;

    /// Page size of the kernel in bytes; a power of two.
    [[nodiscard]] virtual std::uint32_t vm_kernel_page_size() const = 0;

    /// The kind of machine that the live processes of the given word size run on.
    [[nodiscard]] virtual ZBPlatform platformOfProcesses(bool is64bit) const = 0;

    /// Tells what images the tasks of this machine have loaded.
    virtual Symbolicator& symbolicator() = 0;

    /// All pids of the system, in the order in which names are resolved. False when the list can't be had.
    virtual bool proc_listallpids(std::vector<std::int32_t>& pids) = 0;

    /// The record of a process. False when there is none or it can't be read.
    virtual bool proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) = 0;

    /// The short record of the process that the task stands for. 0, or an errno: ESRCH once it is gone.
    virtual int proc_pidinfo(TaskName task, BsdShortInfoRecord& record) = 0;

    /// The saved argument area of a process: a 4-byte count, the executable's path, padding zeros, arguments.
    /// As much of it as the platform has, up to the path's terminator at least. False when it can't be read.
    virtual bool sysctl_procargs(std::int32_t pid, std::string& area) = 0;
    /// The same of an opened process, whose pid may have been given to another one by now.
    virtual bool sysctl_procargs(TaskName task, std::string& area) = 0;

    /// Opens a process. The handle is kTaskNull unless kKernSuccess is returned.
    virtual KernReturn task_for_pid(std::int32_t pid, TaskName& task) = 0;

    /// The tasks that whoever has started us hands over.
    virtual KernReturn mach_ports_lookup(std::vector<TaskName>& ports) = 0;

    /// The kernel's memory on behalf of a task. On failure the record may be left as it was.
    virtual KernReturn task_info(TaskName task, KernelMemoryRecord& record) = 0;

    /// What the process that the task stands for is charged, now and at most in its life. 0 or an errno; on
    /// failure the record may be left as it was.
    virtual int proc_pid_rusage(TaskName task, ResourceUsageRecord& record) = 0;

    /// Whether the process may be ended while it is idle (kProcDirty bits). 0 or an errno; on failure the
    /// flags stay as they were.
    virtual int proc_get_dirty(std::int32_t pid, std::uint32_t& flags) = 0;

    /// Reads what the system knows of a task's memory, where it has to be read at once: the look-ups below
    /// answer from that. A task that can't be read makes the look-ups fail.
    virtual void readTask(TaskName task) = 0;

    /// Finds out what can be known only once all tasks are read, such as who shares a page with whom.
    virtual void settleTasks() = 0;

    /// Gives back what readTask has kept. No look-up follows.
    virtual void forgetTask(TaskName task) = 0;

    /// The first leaf region that ends above the address. The address moves to the region's start, which may
    /// be below it. kKernInvalidAddress when there is none, kMachSendInvalidDest when the process has exited.
    virtual KernReturn mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                              RegionInfoRecord& record) = 0;

    /// The first top-level entry that ends above the address, with a nested map as one entry. Moves the
    /// address and fails as mach_vm_region_recurse does.
    virtual KernReturn mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                      BasicRegionInfoRecord& record) = 0;

    /// The dispositions (kPageQuery bits) of the pages from the one that holds the address, for at most the
    /// given bytes and at most count pages; 0 where nothing is mapped. The count becomes that of the words
    /// written. kKernInvalidArgument when the process has exited.
    virtual KernReturn mach_vm_page_range_query(TaskName task, std::uint64_t address, std::uint64_t size,
                                                std::int32_t* dispositions, std::uint64_t& count) = 0;

    /// The purgeable state of the region at an address.
    virtual KernReturn mach_vm_purgable_control(TaskName task, std::uint64_t address, int& state) = 0;

    /// Path of the file mapped at an address, fit to be printed; absent when there is none.
    virtual Name proc_regionfilename(TaskName task, std::uint64_t address) = 0;

    /// The kernel's account of its own memory. What it lends is to be given back with vm_deallocate, array by
    /// array.
    virtual KernReturn mach_memory_info(KernelMemoryAccount& account) = 0;

    /// Gives so many bytes back that another call has lent.
    virtual KernReturn vm_deallocate(const void* address, std::uint64_t size) = 0;

    /// The kernel modules that are loaded; none where the system does not tell.
    virtual std::vector<KernelModuleInfo> OSKextCopyLoadedKextInfo() = 0;

    /// Opens a saved memory graph, given the contents of its file, which need not outlive the call. Object
    /// ids mean the same in live processes and in graphs of the same capture only. Contents that are no graph
    /// are an error, without a domain where nothing is known about the reason.
    virtual Result<std::unique_ptr<MemoryGraphReader>> openMemoryGraph(std::string_view contents) = 0;

    /// Reads or sets, where newValue is given, an integer setting of the tool's own process. 0 or an errno,
    /// ENOENT when the system has no such setting.
    virtual int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) = 0;

    /// The system's text for a return code.
    [[nodiscard]] virtual std::string mach_error_string(KernReturn code) const = 0;

    /// Reports the prefix and the text of the code.
    void mach_error(const char* prefix, KernReturn code) {
        diagnostics().report(std::string(prefix) + ": " + mach_error_string(code));
    }
};

}  // namespace zorbel
