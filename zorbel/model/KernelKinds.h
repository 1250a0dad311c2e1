#pragma once

#include <cstdint>

namespace zorbel {

// Uses of kernel memory: the constant in the code, the number in the kernel's account, and the last part of
// the name in reports.

// clang-format off
/// Allocation tags. Names start with "VM_KERN_MEMORY_".
#define ZB_KERNEL_TAGS(ROW) \
    ROW(kNone, 0, "NONE") \
    ROW(kOsfmk, 1, "OSFMK") \
    ROW(kBsd, 2, "BSD") \
    ROW(kIokit, 3, "IOKIT") \
    ROW(kLibkern, 4, "LIBKERN") \
    ROW(kOskext, 5, "OSKEXT") \
    ROW(kKext, 6, "KEXT") \
    ROW(kIpc, 7, "IPC") \
    ROW(kStack, 8, "STACK") \
    ROW(kCpu, 9, "CPU") \
    ROW(kPmap, 10, "PMAP") \
    ROW(kPte, 11, "PTE") \
    ROW(kZone, 12, "ZONE") \
    ROW(kKalloc, 13, "KALLOC") \
    ROW(kCompressor, 14, "COMPRESSOR") \
    ROW(kCompressedData, 15, "COMPRESSED_DATA") \
    ROW(kPhantomCache, 16, "PHANTOM_CACHE") \
    ROW(kWaitq, 17, "WAITQ") \
    ROW(kDiag, 18, "DIAG") \
    ROW(kLog, 19, "LOG") \
    ROW(kFile, 20, "FILE") \
    ROW(kMbuf, 21, "MBUF") \
    ROW(kUbc, 22, "UBC") \
    ROW(kSecurity, 23, "SECURITY") \
    ROW(kMlock, 24, "MLOCK") \
    ROW(kReason, 25, "REASON") \
    ROW(kSkywalk, 26, "SKYWALK") \
    ROW(kLtable, 27, "LTABLE") \
    ROW(kFirstDynamic, 28, "FIRST_DYNAMIC") \
    ROW(kAny, 255, "ANY")

/// Page counters. Names start with "VM_KERN_COUNT_".
#define ZB_KERNEL_COUNTERS(ROW) \
    ROW(kManaged, 0, "MANAGED") \
    ROW(kReserved, 1, "RESERVED") \
    ROW(kWired, 2, "WIRED") \
    ROW(kWiredManaged, 3, "WIRED_MANAGED") \
    ROW(kStolen, 4, "STOLEN") \
    ROW(kLopage, 5, "LOPAGE") \
    ROW(kMapKernel, 6, "MAP_KERNEL") \
    ROW(kMapZone, 7, "MAP_ZONE") \
    ROW(kMapKalloc, 8, "MAP_KALLOC") \
    ROW(kWiredBoot, 9, "WIRED_BOOT") \
    ROW(kBootStolen, 10, "BOOT_STOLEN")
// clang-format on

#define ZB_ROW_CONSTANT(constant, number, name) constant = (number),
enum class KernelTag : std::uint64_t { ZB_KERNEL_TAGS(ZB_ROW_CONSTANT) };
enum class KernelCounter : std::uint64_t {
    ZB_KERNEL_COUNTERS(ZB_ROW_CONSTANT) kFirstOfOurOwn,  ///< Counters from here on have their own names.
};
#undef ZB_ROW_CONSTANT

/// A number and its name.
struct KernelName {
    std::uint64_t number;
    const char* name;
};

#define ZB_ROW_NAME(constant, number, name) {(number), (name)},
inline constexpr KernelName kKernelTagNames[] = {ZB_KERNEL_TAGS(ZB_ROW_NAME)};
inline constexpr KernelName kKernelCounterNames[] = {ZB_KERNEL_COUNTERS(ZB_ROW_NAME)};
#undef ZB_ROW_NAME

}  // namespace zorbel
