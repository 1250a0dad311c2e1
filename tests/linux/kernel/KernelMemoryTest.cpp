// The kernel's memory, from the texts of several kernel versions.

#include "linux/kernel/KernelMemory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "linux/LinuxPlatform.h"
#include "support/ScriptedPlatform.h"
#include "support/TestData.h"

namespace zorbel::test {
namespace {

/// All results from the texts in a directory: zones, other records, modules and sources.
std::string accountOf(const std::string& directory) {
    const std::string root = SOURCE_DIR "/tests/data/" + directory;
    RecordedDiagnostics messages;
    LinuxPlatform machine(messages, {root, root + "/sys"});
    KernelMemoryAccount account;
    EXPECT_EQ(machine.mach_memory_info(account), kKernSuccess);
    std::ostringstream text;
    for (std::size_t i = 0; i < account.zones.size(); ++i) {
        const ZoneInfoRecord& zone = account.zones[i];
        text << account.zoneNames[i].mzn_name << ": " << zone.mzi_count << " of " << zone.mzi_elem_size
             << " in " << zone.mzi_cur_size << ", " << zone.mzi_collectable << " free\n";
    }
    for (const MemoryInfoRecord& record : account.memory) {
        text << std::hex << record.flags << " " << record.site << std::dec << ": " << record.size << "+"
             << record.mapped << " " << record.name;
        if (const auto symbol = machine.nameOfKernelSymbol(record.site); symbol && (record.flags & 0xFF) == 2)
            text << *symbol;
        if (const auto source = machine.sourceOfKernelAddress(record.site);
            source && (record.flags & 0xFF) == 2)
            text << " " << source->path << ":" << source->line;
        text << "\n";
    }
    for (const KernelModuleInfo& module : machine.OSKextCopyLoadedKextInfo())
        text << *module.bundleIdentifier << " " << *module.loadTag << "\n";
    EXPECT_EQ(machine.vm_deallocate(&text, 1), kKernInvalidAddress);
    for (const void* array :
         {static_cast<const void*>(account.zoneNames.data()), static_cast<const void*>(account.zones.data()),
          static_cast<const void*>(account.memory.data())}) {
        EXPECT_EQ(machine.vm_deallocate(array, 1), kKernSuccess);
        EXPECT_EQ(machine.vm_deallocate(array, 1), kKernInvalidAddress);
    }
    return text.str();
}

TEST(KernelMemoryTest, ReadsTextsOfAllKernelVersions) {
    for (const std::string directory : {"kernel-5.10", "kernel-6.1", "kernel-6.18"})
        EXPECT_EQ(accountOf(directory), testData(directory + "/account.txt")) << directory;
}

TEST(KernelMemoryTest, NumbersDoNotCollideWithLockedMemory) {
    KernelTexts texts;
    for (int i = 0; i < 30; ++i) {
        texts.modules += "module 4096 0 - Live 0x0\n";
        texts.vmallocinfo += "0x1-0x2 8192 function" + std::to_string(i) + "+0x1/0x2 pages=1 vmalloc\n";
    }
    const KernelMemory memory(texts, 4096);
    const auto isSite24 = [](const MemoryInfoRecord& record) { return record.site == 24; };
    EXPECT_EQ(std::ranges::count_if(memory.account().memory, isSite24), 1);  // The locked memory itself.
}

TEST(KernelMemoryTest, AreasThatTargetsMapCountForThem) {
    KernelTexts texts;
    texts.vmallocinfo =
        "0x1-0x2 20480 array_map_alloc+0x1/0x2 pages=4 vmalloc user vpages N0=4\n"
        "0x3-0x4 12288 array_map_alloc+0x1/0x2 pages=2 vmalloc N0=2\n";
    for (const auto& [mapped, left] : {std::pair(0, 6), {3, 3}, {4, 2}, {9, 2}}) {
        const KernelMemory memory(texts, 4096, static_cast<std::uint64_t>(mapped) * 4096);
        const auto site = std::ranges::find_if(memory.account().memory, [&](const MemoryInfoRecord& record) {
            return memory.symbolOfSite(record.site) == "array_map_alloc";
        });
        ASSERT_NE(site, memory.account().memory.end());
        EXPECT_EQ(site->size, static_cast<std::uint64_t>(left) * 4096) << mapped;
    }
}

}  // namespace
}  // namespace zorbel::test
