#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "model/ShareMode.h"

namespace zorbel {

/// Data of the system about one process, in terms of BSD.
struct BsdInfoRecord {
    static constexpr std::uint32_t kFlagSystem = 0x1;                ///< The kernel itself.
    static constexpr std::uint32_t kFlag64Bit = 0x10;                ///< Runs with 64-bit addresses.
    static constexpr std::uint32_t kFlagControllingTerminal = 0x80;  ///< Has a controlling terminal.
    static constexpr std::uint32_t kFlagThreadDirectory = 0x100;  ///< A thread has its own working directory.
    static constexpr std::uint32_t kFlagChangedPrivileges = 0x2000;  ///< Since its last exec.
    static constexpr std::uint32_t kFlagExec = 0x4000;               ///< Has called exec.

    std::uint32_t pbi_flags = 0;
    std::uint32_t pbi_pid = 0;
    std::uint32_t pbi_ppid = 0;
    char pbi_comm[16] = {};  ///< Command name; not terminated if it fills the array.
    char pbi_name[32] = {};  ///< Long name; the same applies.
};

/// Process flags as passed along with a corpse.
struct CorpseFlags {
    static constexpr std::uint32_t kControllingTerminal = 0x2;
    static constexpr std::uint32_t k64Bit = 0x4;
    static constexpr std::uint32_t kChangedPrivileges = 0x100;
    static constexpr std::uint32_t kSystem = 0x200;
    static constexpr std::uint32_t kExec = 0x4000;
    static constexpr std::uint32_t kThreadDirectory = 0x1000000;
};

/// Whether a process still runs.
struct BsdShortInfoRecord {
    static constexpr std::uint32_t kStateRunning = 2;
    static constexpr std::uint32_t kStateZombie = 5;

    std::uint32_t pbsi_status = 0;
};

/// The kernel's memory for a task, in bytes: allocated and freed, private (p) and shared (s).
struct KernelMemoryRecord {
    std::uint64_t total_palloc = 0;
    std::uint64_t total_pfree = 0;
    std::uint64_t total_salloc = 0;
    std::uint64_t total_sfree = 0;
};

/// What the system charges a process, in bytes.
struct ResourceUsageRecord {
    std::uint64_t ri_phys_zorbel = 0;
    std::uint64_t ri_lifetime_max_phys_zorbel = 0;
};

/// What tells processes with the same name apart. Texts are printable, and empty where they are not known.
struct ProcessDetails {
    std::uint32_t uid = 0;
    std::string user;  ///< Name of the user, as this machine's list of users has it.
    std::int32_t parent = 0;
    std::uint64_t started = 0;  ///< Seconds since 1970; 0 where it is not known.
    std::string command;        ///< Command line, its words separated by blanks; cut if it is long.
    std::string cgroup;         ///< Path of the control group that its memory is charged to.
};

/// How the system may end an idle process; a sum of bits.
inline constexpr std::uint32_t kProcDirtyTracked = 0x1;
inline constexpr std::uint32_t kProcDirtyAllowsIdleExit = 0x2;
inline constexpr std::uint32_t kProcDirtyIsDirty = 0x4;

/// Pages of a region that count for an object of their own, since other regions map them too: what processes
/// still share after a fork, or the pages of a file that is memory. Page counts are in pages of the kernel's
/// page size.
struct SharedPages {
    std::uint32_t object_id = 0;  ///< 0 for pages of which the region maps one several times.
    // Of the counts of the region.
    std::uint32_t pages_resident = 0;
    std::uint32_t pages_swapped_out = 0;
    std::uint32_t pages_reusable = 0;  ///< Of the resident ones.
    // Of the object as a whole, the same in each of its regions; each page counts once.
    std::uint64_t object_pages_resident = 0;
    std::uint64_t object_pages_swapped_out = 0;
    std::uint64_t object_pages_reusable = 0;
    std::uint64_t object_pages_wired = 0;
    // Of the resident ones: those that can be read again from a file. Only saved graphs have such parts.
    std::uint32_t pages_clean = 0;
    std::uint64_t object_pages_clean = 0;
};

/// One region of an address space as a leaf look-up returns it. Page counts are in pages of the kernel's page
/// size.
struct RegionInfoRecord {
    std::int32_t protection = 0;      ///< Read 1, write 2, execute 4.
    std::int32_t max_protection = 0;  ///< Highest protection that can be set.
    std::uint32_t inheritance = 0;
    std::int32_t behavior = 0;
    std::uint64_t offset = 0;  ///< Bytes into the object.
    std::uint32_t user_tag = 0;
    std::uint32_t pages_resident = 0;
    std::uint32_t pages_shared_now_private = 0;
    std::uint32_t pages_swapped_out = 0;
    std::uint32_t pages_dirtied = 0;
    std::uint32_t pages_reusable = 0;  ///< Resident; the system may drop them.
    std::uint32_t ref_count = 0;
    /// Wired pages. Wider than the kernel's own field, to count many GiB of locked memory.
    std::uint32_t user_wired_count = 0;
    std::uint32_t object_id = 0;  ///< Equal if and only if two regions map the same memory; 0 for none.
    std::uint16_t shadow_depth = 0;
    std::uint8_t external_pager = 0;  ///< Non-zero if clean pages can be read again from a file.
    std::uint8_t share_mode = 0;      ///< One of the kShareMode constants.
    /// What does not count for the region's own object; lent until the task is forgotten.
    std::span<const SharedPages> shared{};
    bool is_submap = false;
};

/// A top-level entry of an address space: a region, or a whole nested map.
struct BasicRegionInfoRecord {
    std::int32_t protection = 0;
    std::int32_t max_protection = 0;
    std::uint32_t inheritance = 0;
    std::uint64_t offset = 0;  ///< Bytes into the object.
    std::int32_t behavior = 0;
    std::uint32_t user_wired_count = 0;  ///< Pages.
};

/// Result of a page query; a sum of bits.
inline constexpr std::int32_t kPageQueryPresent = 0x1;
inline constexpr std::int32_t kPageQueryDirty = 0x8;
inline constexpr std::int32_t kPageQueryPagedOut = 0x10;
inline constexpr std::int32_t kPageQueryExternal = 0x80;  ///< Can be read again from a file.

/// Kinds of machine, which differ in the address of the shared library cache.
enum class ZBPlatform : std::uint8_t {
    kX86 = 0,
    kX86_64 = 1,
    kARM = 2,
    kARM64 = 3,
    kARM64_32 = 4,
    kUnknown = 5,
    kLinux = 6,  ///< Has no such cache.
};

/// Purgeable states. The numbers are the kernel's.
inline constexpr int kPurgeableNonVolatile = 0;
inline constexpr int kPurgeableVolatile = 1;
inline constexpr int kPurgeableEmpty = 2;
inline constexpr int kPurgeableDeny = 3;  ///< Not purgeable, or unknown.

}  // namespace zorbel
