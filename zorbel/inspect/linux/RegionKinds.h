#pragma once

#include <cstdint>
#include <span>

#include "inspect/linux/FileSystems.h"
#include "inspect/linux/Smaps.h"
#include "inspect/linux/SnapshotRegion.h"

namespace zorbel {

/// Numbers of the kinds of memory, as ZBMemoryRegion::categoryNameForTag names them.
enum class Tag : std::uint8_t {
    kNone = 0,
    kMallocSmall = 2,
    kMallocLarge = 3,
    kSbrk = 5,
    kMemfd = 21,
    kStack = 30,
    kGuard = 31,
    kReserved = 34,
    kPosixShared = 40,
    kSysVShared = 41,
    kSharedAnonymous = 42,
    kTmpfs = 43,
    kHugePages = 44,
    kGpuBuffer = 45,
    kDmaBuffer = 46,
    kIoUring = 50,
    kAioRing = 51,
    kPerfRing = 52,
    kBpfMap = 53,
    kPacketRing = 54,
    kDeviceMemory = 55,
    kVdso = 56,
    kVvar = 57,
    kVsyscall = 58,
    kUprobes = 60,
    kExecutableAnonymous = 61,
    kJitCode = 64,
    kNamedAnonymous = 67,
    kGoHeap = 68,
};

/// What an entry tells of its own kind.
struct RegionKind {
    Tag tag = Tag::kNone;
    /// Whether clean pages can be read again from a file.
    bool hasStorage = false;
};

/// Kind of an entry by its path and flags. The file system is that of its device, and matters only for an
/// entry that maps a file.
RegionKind kindOfEntry(const SmapsEntry& entry, FileSystems::Kind fileSystem);

/// Whether the entry's memory is a file's, be it one that lives in memory only.
bool mapsFile(const SmapsEntry& entry);

/// Finds the kinds of the plain anonymous regions of one address space, given in ascending order: their place
/// and their neighbours tell what no name does.
void findAnonymousKinds(std::span<SnapshotRegion> regions);

}  // namespace zorbel
