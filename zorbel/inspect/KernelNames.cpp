#include "inspect/KernelNames.h"

#include <span>

#include "model/KernelKinds.h"

namespace zorbel {

namespace {

std::string nameOf(const char* prefix, std::uint64_t number, std::span<const KernelName> names) {
    for (const KernelName& row : names)
        if (row.number == number) return std::string(prefix) + row.name;
    return prefix + std::to_string(number);
}

}  // namespace

std::string nameOfKernelTag(std::uint64_t tag) { return nameOf("VM_KERN_MEMORY_", tag, kKernelTagNames); }

std::string nameOfKernelCounter(std::uint64_t counter) {
    return nameOf("VM_KERN_COUNT_", counter, kKernelCounterNames);
}

}  // namespace zorbel
