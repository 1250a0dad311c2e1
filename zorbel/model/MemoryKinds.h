#pragma once

#include <cstdint>

namespace zorbel {

// Kinds of memory: the constant in the code, the tag of a region, and the name in reports. To add a kind, add
// a row here and the code that recognizes it. Applications may use the tags from 240 on.

// clang-format off
/// Kinds on every machine.
#define ZB_GENERIC_MEMORY_KINDS(ROW) \
    ROW(kMallocMetadata, 1, "malloc metadata") \
    ROW(kMallocSmall, 2, "MALLOC_SMALL") \
    ROW(kMallocLarge, 3, "MALLOC_LARGE") \
    ROW(kMallocHuge, 4, "MALLOC_HUGE") \
    ROW(kSbrk, 5, "sbrk") \
    ROW(kRealloc, 6, "realloc") \
    ROW(kMallocTiny, 7, "MALLOC_TINY") \
    ROW(kMallocLargeReusable, 8, "MALLOC_LARGE_REUSABLE") \
    ROW(kMallocLargeReused, 9, "MALLOC_LARGE_REUSED") \
    ROW(kPerformanceToolData, 10, "performance tool data") \
    ROW(kMallocNano, 11, "MALLOC_NANO") \
    ROW(kDiagnostics, 18, "system/kernel diagnostics") \
    ROW(kMachMessage, 20, "Mach message") \
    ROW(kStack, 30, "stack") \
    ROW(kGuard, 31, "guard") \
    ROW(kSharedPmap, 32, "shared pmap") \
    ROW(kDylib, 33, "dylib") \
    ROW(kUnsharedPmap, 35, "unshared pmap") \
    ROW(kSqlitePageCache, 62, "SQLite page cache") \
    ROW(kWebAssembly, 63, "WebAssembly") \
    ROW(kJitCode, 64, "JS JIT generated code") \
    ROW(kJsRegisterFile, 65, "JS VM register file") \
    ROW(kOpenGlShadingLanguage, 66, "OpenGL Shading Language") \
    ROW(kCorpseInfo, 80, "corpse info") \
    ROW(kAudio, 90, "audio") \
    ROW(kVideoBitstream, 91, "video bitstream")

/// Kinds on Linux only.
#define ZB_LINUX_MEMORY_KINDS(ROW) \
    ROW(kMemfd, 21, "memfd") \
    ROW(kReserved, 34, "reserved address space") \
    ROW(kPosixShared, 40, "POSIX shared memory") \
    ROW(kSysVShared, 41, "SysV shared memory") \
    ROW(kSharedAnonymous, 42, "shared anonymous memory") \
    ROW(kTmpfs, 43, "tmpfs file") \
    ROW(kHugePages, 44, "huge pages") \
    ROW(kGpuBuffer, 45, "GPU buffer") \
    ROW(kDmaBuffer, 46, "DMA buffer") \
    ROW(kIoUring, 50, "io_uring") \
    ROW(kAioRing, 51, "AIO ring") \
    ROW(kPerfRing, 52, "perf ring buffer") \
    ROW(kBpfMap, 53, "BPF map") \
    ROW(kPacketRing, 54, "packet ring") \
    ROW(kDeviceMemory, 55, "device memory") \
    ROW(kVdso, 56, "vdso") \
    ROW(kVvar, 57, "vvar") \
    ROW(kVsyscall, 58, "vsyscall") \
    ROW(kUprobes, 60, "uprobes") \
    ROW(kExecutableAnonymous, 61, "executable anonymous memory") \
    ROW(kNamedAnonymous, 67, "named anonymous memory") \
    ROW(kGoHeap, 68, "Go heap") \
    ROW(kGoRuntime, 69, "Go runtime") \
    ROW(kJavaHeap, 70, "Java heap") \
    ROW(kJavaClassSpace, 71, "Java class space") \
    ROW(kJavaMetaspace, 72, "Java metaspace") \
    ROW(kJavaCode, 73, "Java code cache") \
    ROW(kV8Heap, 74, "V8 heap") \
    ROW(kPythonObjects, 75, "Python objects") \
    ROW(kPartitionAlloc, 76, "PartitionAlloc") \
    ROW(kOilpanHeap, 77, "Oilpan heap") \
    ROW(kJemalloc, 78, "jemalloc") \
    ROW(kMimalloc, 79, "mimalloc") \
    ROW(kTcmalloc, 81, "tcmalloc") \
    ROW(kRubyHeap, 82, "Ruby heap") \
    ROW(kErlangHeap, 83, "Erlang heap") \
    ROW(kRubyTransientHeap, 84, "Ruby transient heap") \
    ROW(kSecretMemory, 86, "secret memory")
// clang-format on

#define ZB_ROW_CONSTANT(constant, tag, name) constant = (tag),
/// Tags of regions.
enum class Tag : std::uint8_t {
    kNone = 0,
    ZB_GENERIC_MEMORY_KINDS(ZB_ROW_CONSTANT) ZB_LINUX_MEMORY_KINDS(ZB_ROW_CONSTANT)
};
#undef ZB_ROW_CONSTANT

/// A tag and its name in reports.
struct MemoryKind {
    Tag tag;
    const char* name;
};

#define ZB_ROW_KIND(constant, tag, name) {Tag::constant, name},
inline constexpr MemoryKind kMemoryKinds[] = {ZB_GENERIC_MEMORY_KINDS(ZB_ROW_KIND)
                                                  ZB_LINUX_MEMORY_KINDS(ZB_ROW_KIND)};
#undef ZB_ROW_KIND

}  // namespace zorbel
