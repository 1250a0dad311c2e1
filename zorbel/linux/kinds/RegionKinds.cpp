#include "linux/kinds/RegionKinds.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace zorbel {

namespace {

constexpr std::uint64_t kMiB = 0x100000;
constexpr std::uint64_t kLargestGuard = kMiB;

/// The C library aligns the arena of a thread to the size that it reserves for it.
constexpr std::uint64_t kArenaSize64 = 64 * kMiB;
constexpr std::uint64_t kArenaSize32 = kMiB;

constexpr std::uint64_t k32BitAddressSpace = 0x100000000;

constexpr std::string_view kAnonPrefix = "[anon:";
constexpr std::string_view kAnonShmemPrefix = "[anon_shmem:";
constexpr std::string_view kPosixSharedPrefix = "/dev/shm/";

struct PrefixTag {
    std::string_view prefix;
    Tag tag;
};

/// The tag of the first row whose prefix the text starts with; kNone if there is none.
template <std::size_t count>
Tag tagByPrefix(const PrefixTag (&rows)[count], std::string_view text) {
    for (const PrefixTag& row : rows)
        if (text.starts_with(row.prefix)) return row.tag;
    return Tag::kNone;
}

/// Names that the kernel itself gives.
constexpr PrefixTag kKernelNames[] = {
    {"[heap]", Tag::kSbrk}, {"[stack", Tag::kStack},        {"[vdso]", Tag::kVdso},
    {"[vvar", Tag::kVvar},  {"[vsyscall]", Tag::kVsyscall}, {"[uprobes]", Tag::kUprobes},
};

/// Names that allocators and runtimes set with PR_SET_VMA_ANON_NAME, without the leading "[anon:".
constexpr PrefixTag kAllocatorNames[] = {
    {" glibc: malloc arena", Tag::kMallocSmall},
    {" glibc: loader malloc", Tag::kMallocSmall},
    {" glibc: malloc", Tag::kMallocLarge},
    {" glibc: pthread", Tag::kStack},
    {"scudo:secondary", Tag::kMallocLarge},
    {"scudo:", Tag::kMallocSmall},
    {"libc_malloc", Tag::kMallocSmall},
    {"GWP-ASan", Tag::kMallocSmall},
    {"jemalloc", Tag::kMallocSmall},
    {"tcmalloc", Tag::kMallocSmall},
    {"mimalloc", Tag::kMallocSmall},
    {"partition_alloc", Tag::kMallocSmall},
    {"stack_and_tls:", Tag::kStack},
    {" Go: heap", Tag::kGoHeap},
};

/// Names set by runtimes that generate code. An executable region with such a name contains code.
constexpr PrefixTag kJitNames[] = {
    {"v8", Tag::kJitCode},   {"js-executable-memory", Tag::kJitCode},
    {"JIT", Tag::kJitCode},  {"dalvik-jit", Tag::kJitCode},
    {"wasm", Tag::kJitCode}, {"WebKit JIT", Tag::kJitCode},
};

constexpr PrefixTag kDeviceNames[] = {
    {"/dev/dri/", Tag::kGpuBuffer},
    {"/dev/nvidia", Tag::kGpuBuffer},
    {"/dev/", Tag::kDeviceMemory},
};

/// Names of memory on the kernel's own file systems, which are not mounted anywhere.
constexpr PrefixTag kUnmountedNames[] = {
    {"/memfd:", Tag::kMemfd},
    {"/SYSV", Tag::kSysVShared},
    {"/dev/zero (deleted)", Tag::kSharedAnonymous},
    {"/secretmem (deleted)", Tag::kSecretMemory},
    {kAnonShmemPrefix, Tag::kSharedAnonymous},
    {"/drm mm object", Tag::kGpuBuffer},
    {"/i915", Tag::kGpuBuffer},
    {"/dmabuf:", Tag::kDmaBuffer},
    {"anon_inode:[io_uring]", Tag::kIoUring},
    {"/[aio]", Tag::kAioRing},
    {"anon_inode:[perf_event]", Tag::kPerfRing},
    {"anon_inode:bpf-map", Tag::kBpfMap},
    {"socket:[", Tag::kPacketRing},
};

Tag tagOfNamedAnonymous(const SmapsEntry& entry) {
    if (!entry.path.starts_with(kAnonPrefix)) return tagByPrefix(kKernelNames, entry.path);
    const std::string_view name = entry.path.substr(kAnonPrefix.size());
    if ((entry.permissions & SmapsEntry::kExecute) != 0)
        if (const Tag tag = tagByPrefix(kJitNames, name); tag != Tag::kNone) return tag;
    const Tag tag = tagByPrefix(kAllocatorNames, name);
    return tag != Tag::kNone ? tag : Tag::kNamedAnonymous;
}

bool isAccessible(const SnapshotRegion& region) { return region.protection != 0; }

bool isReadWrite(const SnapshotRegion& region) {
    return region.protection == (SmapsEntry::kRead | SmapsEntry::kWrite);
}

/// Whether the region starts at the alignment of an arena, and the rest of that arena is reserved.
bool isArena(const SnapshotRegion& region, const SnapshotRegion* next, std::uint64_t arenaSize) {
    if (!isReadWrite(region) || region.start % arenaSize != 0 || region.size() > arenaSize) return false;
    const std::uint64_t arenaEnd = region.start + arenaSize;
    if (region.end == arenaEnd) return true;
    return next != nullptr && next->isPlainAnonymous && !isAccessible(*next) && next->start == region.end &&
           next->end >= arenaEnd;
}

/// Whether the region is the zeroed data of a program in which everything is executable: it follows a region
/// of the file, with the same protection.
bool continuesDataSegment(const SnapshotRegion& region, const SnapshotRegion* previous) {
    return previous != nullptr && previous->end == region.start && previous->file != nullptr &&
           previous->shareMode() == kShareModeCopyOnWrite && previous->protection == region.protection;
}

Tag tagOfPlainAnonymous(const SnapshotRegion& region, const SnapshotRegion* previous,
                        const SnapshotRegion* next, bool is64bit) {
    const bool followsDirectly = previous != nullptr && previous->end == region.start;
    const Tag before = followsDirectly ? previous->tag : Tag::kNone;
    if (!isAccessible(region)) {
        const bool isRestOfArena = before == Tag::kMallocSmall && previous->isPlainAnonymous;
        return region.size() <= kLargestGuard && !isRestOfArena ? Tag::kGuard : Tag::kReserved;
    }
    if (region.has(SmapsEntry::kExecute))
        return continuesDataSegment(region, previous) ? Tag::kNone : Tag::kExecutableAnonymous;
    if (isArena(region, next, is64bit ? kArenaSize64 : kArenaSize32)) return Tag::kMallocSmall;
    return Tag::kNone;
}

}  // namespace

bool mapsFile(const SmapsEntry& entry) {
    // A private mapping of /dev/zero is plain anonymous memory.
    if (!entry.isShared && entry.path == "/dev/zero") return false;
    return !entry.path.empty() && (entry.path[0] != '[' || entry.path.starts_with(kAnonShmemPrefix));
}

RegionKind kindOfEntry(const SmapsEntry& entry, FileSystems::Kind fileSystem, bool isBlockDevice) {
    if ((entry.flags & SmapsEntry::kHugePages) != 0) return {Tag::kHugePages, false};
    if (mapsFile(entry) && fileSystem == FileSystems::Kind::kHuge) return {Tag::kHugePages, false};
    if (!mapsFile(entry)) {
        if (entry.path.empty()) return {};
        return {tagOfNamedAnonymous(entry), false};
    }
    if (isBlockDevice) return {Tag::kNone, true};
    // On a mounted file system, any user could name a file like this, so such a name is not trusted there.
    const bool isMounted =
        fileSystem != FileSystems::Kind::kUnknown && fileSystem != FileSystems::Kind::kKernel;
    if (!isMounted)
        if (const Tag tag = tagByPrefix(kUnmountedNames, entry.path); tag != Tag::kNone) return {tag, false};
    if (entry.path.starts_with(kPosixSharedPrefix))
        return {Tag::kPosixShared, fileSystem != FileSystems::Kind::kMemory};
    if (const Tag tag = tagByPrefix(kDeviceNames, entry.path); tag != Tag::kNone) return {tag, false};
    if ((entry.flags & SmapsEntry::kDeviceMemory) != 0) return {Tag::kDeviceMemory, false};
    const bool livesInMemory =
        fileSystem == FileSystems::Kind::kMemory || fileSystem == FileSystems::Kind::kKernel;
    if (livesInMemory) return {Tag::kTmpfs, false};
    return {Tag::kNone, true};
}

bool hasSharedPages(Tag tag) {
    constexpr Tag kTags[] = {Tag::kMemfd, Tag::kPosixShared, Tag::kSysVShared, Tag::kSharedAnonymous,
                             Tag::kTmpfs};
    return std::find(std::begin(kTags), std::end(kTags), tag) != std::end(kTags);
}

void findAnonymousKinds(std::span<SnapshotRegion> regions,
                        const std::function<bool(std::uint64_t address)>& mayRead) {
    bool is64bit = false;
    for (const SnapshotRegion& region : regions) is64bit = is64bit || region.end > k32BitAddressSpace;
    for (std::size_t i = 0; i < regions.size(); ++i) {
        if (!regions[i].isPlainAnonymous || regions[i].tag != Tag::kNone) continue;
        const SnapshotRegion* previous = i > 0 ? &regions[i - 1] : nullptr;
        const SnapshotRegion* next = i + 1 < regions.size() ? &regions[i + 1] : nullptr;
        const Tag tag = tagOfPlainAnonymous(regions[i], previous, next, is64bit);
        const bool isDisproved = tag == Tag::kMallocSmall && mayRead(regions[i].start);
        regions[i].tag = isDisproved ? Tag::kNone : tag;
    }
}

}  // namespace zorbel
