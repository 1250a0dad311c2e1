#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/platform/KernelRecords.h"
#include "inspect/platform/MemoryGraphReader.h"
#include "inspect/platform/Records.h"
#include "inspect/platform/Symbolicator.h"
#include "model/Name.h"

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
/// Calls that take a pid, task_for_pid, mach_ports_lookup, task_info and proc_pid_rusage are made from one
/// thread, before any task is gathered. The other calls that take a task are made from the worker that
/// gathers that task, several workers at once for different tasks.
class Platform {
  public:
    Platform() = default;
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;
    virtual ~Platform() = default;

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
    /// As much of it as the platform cares to give, up to the path's terminator at least. False when it can't
    /// be read.
    virtual bool sysctl_procargs(std::int32_t pid, std::string& area) = 0;

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
    /// ids mean the same in live processes and in graphs of the same capture only. Null when the contents are
    /// no graph; the error then tells why, or has no domain where nothing is known.
    virtual std::unique_ptr<MemoryGraphReader> openMemoryGraph(std::string_view contents,
                                                               PlatformError& error) = 0;

    /// Reads or sets, where newValue is given, an integer setting of the tool's own process. 0 or an errno,
    /// ENOENT when the system has no such setting.
    virtual int sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) = 0;

    /// The system's text for a return code.
    [[nodiscard]] virtual std::string mach_error_string(KernReturn code) const = 0;

    /// Prints the prefix and the text of the code on standard error, at once.
    void mach_error(const char* prefix, KernReturn code) const;
};

}  // namespace zorbel
