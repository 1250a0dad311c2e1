#include "inspect/KernelNames.h"

#include <iterator>

namespace zorbel {

namespace {

constexpr std::uint64_t kAnyTag = 255;

constexpr const char* kTagNames[] = {
    "NONE",          "OSFMK",  "BSD",     "IOKIT",  "LIBKERN",      "OSKEXT", "KEXT",       "IPC",
    "STACK",         "CPU",    "PMAP",    "PTE",    "ZONE",         "KALLOC", "COMPRESSOR", "COMPRESSED_DATA",
    "PHANTOM_CACHE", "WAITQ",  "DIAG",    "LOG",    "FILE",         "MBUF",   "UBC",        "SECURITY",
    "MLOCK",         "REASON", "SKYWALK", "LTABLE", "FIRST_DYNAMIC"};

constexpr const char* kCounterNames[] = {"MANAGED",    "RESERVED",   "WIRED",      "WIRED_MANAGED",
                                         "STOLEN",     "LOPAGE",     "MAP_KERNEL", "MAP_ZONE",
                                         "MAP_KALLOC", "WIRED_BOOT", "BOOT_STOLEN"};

}  // namespace

std::string nameOfKernelTag(std::uint64_t tag) {
    const std::string prefix = "VM_KERN_MEMORY_";
    if (tag == kAnyTag) return prefix + "ANY";
    return prefix + (tag < std::size(kTagNames) ? kTagNames[tag] : std::to_string(tag));
}

std::string nameOfKernelCounter(std::uint64_t counter) {
    const std::string prefix = "VM_KERN_COUNT_";
    return prefix + (counter < std::size(kCounterNames) ? kCounterNames[counter] : std::to_string(counter));
}

}  // namespace zorbel
