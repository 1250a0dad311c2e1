#include "model/ZBMemoryRegion.h"

#include <array>
#include <string>

namespace zorbel {

namespace {

constexpr std::uint32_t kTagCount = 256;
constexpr std::uint32_t kFirstApplicationTag = 240;

struct TagName {
    std::uint8_t tag;
    const char* name;
};

constexpr TagName kTagNames[] = {
    // Kinds that every platform has.
    {1, "malloc metadata"},
    {2, "MALLOC_SMALL"},
    {3, "MALLOC_LARGE"},
    {4, "MALLOC_HUGE"},
    {5, "sbrk"},
    {6, "realloc"},
    {7, "MALLOC_TINY"},
    {8, "MALLOC_LARGE_REUSABLE"},
    {9, "MALLOC_LARGE_REUSED"},
    {10, "performance tool data"},
    {11, "MALLOC_NANO"},
    {18, "system/kernel diagnostics"},
    {20, "Mach message"},
    {30, "stack"},
    {31, "guard"},
    {32, "shared pmap"},
    {33, "dylib"},
    {35, "unshared pmap"},
    {62, "SQLite page cache"},
    {63, "WebAssembly"},
    {64, "JS JIT generated code"},
    {65, "JS VM register file"},
    {66, "OpenGL Shading Language"},
    {80, "corpse info"},
    {90, "audio"},
    {91, "video bitstream"},
    // Linux's own kinds.
    {21, "memfd"},
    {34, "reserved address space"},
    {40, "POSIX shared memory"},
    {41, "SysV shared memory"},
    {42, "shared anonymous memory"},
    {43, "tmpfs file"},
    {44, "huge pages"},
    {45, "GPU buffer"},
    {46, "DMA buffer"},
    {50, "io_uring"},
    {51, "AIO ring"},
    {52, "perf ring buffer"},
    {53, "BPF map"},
    {54, "packet ring"},
    {55, "device memory"},
    {56, "vdso"},
    {57, "vvar"},
    {58, "vsyscall"},
    {60, "uprobes"},
    {61, "executable anonymous memory"},
    {67, "named anonymous memory"},
    {68, "Go heap"},
};

std::string tagText(std::uint32_t tag) { return "tag " + std::to_string(static_cast<std::int32_t>(tag)); }

/// The names of all tags below 256, so that naming a region is one look-up.
std::array<Name, kTagCount> makeTagNames() {
    std::array<Name, kTagCount> names;
    for (std::uint32_t tag = 1; tag < kFirstApplicationTag; ++tag) names[tag] = Name(tagText(tag));
    for (const TagName& row : kTagNames) names[row.tag] = Name(row.name);
    for (std::uint32_t tag = kFirstApplicationTag; tag < kTagCount; ++tag)
        names[tag] = Name("app-specific tag " + std::to_string(tag - kFirstApplicationTag + 1));
    return names;
}

}  // namespace

std::strong_ordering ZBMemoryRegion::compare(const ZBMemoryRegion& other) const {
    if (_start != other._start) return _start <=> other._start;
    return other._size <=> _size;
}

Name ZBMemoryRegion::categoryNameForTag(std::uint32_t tag) {
    static const std::array<Name, kTagCount> kNames = makeTagNames();
    if (tag < kTagCount) return kNames[tag];
    if (tag == kTagAllOnes) return Name("Non-volatile physical zorbel");
    return Name(tagText(tag));
}

}  // namespace zorbel
