#include "inspect/ZBKernelProcess.h"

#include <gmock/gmock.h>

#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cstring>

#include "support/ScriptedPlatform.h"

namespace zorbel::test {

using namespace testing;

using R = MemoryInfoRecord;

class ZBKernelProcessTest : public Test {
  protected:
    ZBKernelProcessTest() { machine.process(0, "kernel").flags = BsdInfoRecord::kFlagSystem; }

    void zone(const std::string& name, ZoneInfoRecord info) {
        std::memcpy(machine.zoneNames.emplace_back().mzn_name, name.data(), name.size());
        machine.zones.push_back(info);
    }

    R& record(std::uint64_t flags, std::uint64_t site, std::uint64_t size, const char* name = "") {
        R& added = machine.kernelRecords.emplace_back();
        added.flags = flags;
        added.site = site;
        added.size = size;
        std::strcpy(added.name, name);
        return added;
    }

    /// The regions: name, detailed name where there is one, object id, size, dirty, clean, reclaimable and
    /// wired size.
    std::vector<std::string> gather() {
        process = ZBProcess::processWithPid(machine, 0);
        process->gatherData();
        process->reportMessages();
        said = machine.messages.take();
        std::vector<std::string> rows;
        for (const ZBMemoryRegion& region : process->memoryRegions()) {
            char figures[120];
            std::snprintf(figures, sizeof figures, " %lx %lu %lu %lu %lu %lu", region.object_id(),
                          region.size(), region.dirtySize(), region.cleanNonSpecSize(),
                          region.reclaimableSize(), region.wiredSize());
            const std::string& detail = region.detailedName().text();
            rows.push_back(region.name().text() + (detail.empty() ? "" : " ") + detail + figures);
        }
        return rows;
    }

    /// The name of a machine's only record.
    std::string nameOf(std::uint64_t flags, std::uint64_t site, const char* name = "",
                       std::uint16_t zone = 0) {
        machine.kernelRecords.clear();
        record(flags, site, 8, name).zone = zone;
        gather();
        return process->memoryRegions().back().name().text();
    }

    ScriptedPlatform machine;
    std::unique_ptr<ZBProcess> process;
    std::string said;
};

TEST_F(ZBKernelProcessTest, ZonesComeBeforeSites) {
    zone("vm.map", {10, 4096, 100, 0});
    zone(std::string(80, 'z'), {3, 32768, 8192, 8192});
    record(R::kTagSite | R::kWired, 13, 500);
    record(R::kTagSite | R::kWired | R::kHidden, 13, 600);
    record(R::kTagSite | R::kWired, 24, 700);
    record(R::kTagSite | R::kWired | R::kZone, 1, 800);
    record(R::kTagSite, 2, 900);
    record(R::kTagSite | R::kWired, 0, 0);
    record(R::kTagSite | R::kWired, 7, 0);
    record(R::kTagSite | R::kWired | R::kHidden, 24, 5);
    record(R::kModuleSite, 24, 6);
    record(R::kAddressSite | R::kWired, 0xFFFFFFFF00000000, 7);
    EXPECT_THAT(gather(), ElementsAre("vm.map zone 200000000 4096 4096 0 0 0",
                                      std::string(80, 'z') + " zone 200000001 32768 24576 0 8192 0",
                                      "VM_KERN_MEMORY_KALLOC 30000000d 500 500 0 0 500",
                                      "VM_KERN_MEMORY_KALLOC (hidden) 30000000d 600 0 600 0 600",
                                      "VM_KERN_MEMORY_MLOCK (user wired) 300000018 700 0 700 0 700",
                                      "VM_KERN_MEMORY_OSFMK[vm.map] 300000001 800 0 800 0 800",
                                      "VM_KERN_MEMORY_BSD 300000002 900 0 900 0 0",
                                      "VM_KERN_MEMORY_IPC 300000007 0 0 0 0 0",
                                      "VM_KERN_MEMORY_MLOCK (hidden) 300000018 5 0 5 0 5",
                                      "unloaded kmod 24 (user wired) 500000018 6 0 6 0 0",
                                      "site 0xffffffff00000000 fffffffe00000000 7 7 0 0 7"));
    EXPECT_EQ(said, "");
    EXPECT_EQ(process->displayString(), "kernel [0]");
    EXPECT_EQ(process->idleExitStatus(), ZBIdleExitStatus::kNotIdleExit);
    EXPECT_EQ(process->memoryRegions().back().user_tag(), 9U);
    EXPECT_THAT(machine.released, ElementsAre(Pair(machine.zones.data(), 2 * sizeof(ZoneInfoRecord)),
                                              Pair(machine.zoneNames.data(), 160U),
                                              Pair(machine.kernelRecords.data(), 10 * sizeof(R))));
}

TEST_F(ZBKernelProcessTest, KindDecidesNameOfSite) {
    for (std::uint16_t i = 0; i < 5; ++i) zone("zone" + std::to_string(i), {});
    machine.modules = {{"org.one", 7}, {"org.none", std::nullopt}, {std::nullopt, 8}};
    machine.kernelSymbols = {{0, "never"}, {0xABC, "_alloc"}};
    machine.kernelSources = {{0xABC, {"vm.c", 12}}};
    const std::tuple<std::uint64_t, std::uint64_t, const char*> rows[] = {
        {R::kTagSite, 3, "VM_KERN_MEMORY_IOKIT"},
        {R::kTagSite, 28, "VM_KERN_MEMORY_FIRST_DYNAMIC"},
        {R::kTagSite, 29, "VM_KERN_MEMORY_29"},
        {R::kTagSite, 255, "VM_KERN_MEMORY_ANY"},
        {R::kTagSite, 300, "VM_KERN_MEMORY_300"},
        {R::kModuleSite, 7, "org.one"},
        {R::kModuleSite, 8, "unloaded kmod 8"},
        {R::kModuleSite, 9, "unloaded kmod 9"},
        {R::kAddressSite, 0, "site 0x0"},
        {R::kAddressSite, 0xABC, "_alloc"},
        {R::kAddressSite, 0xFFFFFFFF81234567, "site 0xffffffff81234567"},
        {R::kCounter | R::kWired, 10, "VM_KERN_COUNT_BOOT_STOLEN"},
        {R::kCounter | R::kWired, 11, "VM_KERN_COUNT_11"},
        {7, 0xDE, "unknown site (0x7, 0xde)"},
    };
    for (const auto& [flags, site, name] : rows) EXPECT_EQ(nameOf(flags, site), name);
    EXPECT_EQ(nameOf(R::kNamed, 1, "own"), "own");
    EXPECT_EQ(nameOf(R::kNamed, 1, "\xFF"), "VM_KERN_MEMORY_OSFMK");
    EXPECT_EQ(nameOf(R::kNamed | R::kZone, 1, "own", 4), "own[zone4]");
    EXPECT_EQ(nameOf(R::kZone, 1, "", 5), "VM_KERN_MEMORY_OSFMK");
    machine.zones.clear(), machine.zoneNames.clear(), machine.kernelRecords.clear();
    // A source location is shown even for hidden memory.
    record(R::kAddressSite | R::kHidden, 0xABC, 8);
    record(R::kModuleSite, 7, 8);
    record(R::kCounter | R::kWired, 1, 8);
    record(7, 1, 8);
    EXPECT_THAT(gather(), ElementsAre("_alloc (vm.c:12) 100000abc 8 0 8 0 0", "org.one 500000007 8 0 8 0 0",
                                      "VM_KERN_COUNT_RESERVED 400000001 8 8 0 0 8",
                                      "unknown site (0x7, 0x1) 100000001 8 0 8 0 0"));
}

TEST_F(ZBKernelProcessTest, CountersAreAuxiliaryData) {
    const auto figures = [this] { return boost::json::serialize(process->auxData()->jsonRepresentation()); };
    EXPECT_THAT(gather(), IsEmpty());
    EXPECT_EQ(figures(), R"({"Maps":{}})");
    record(R::kCounter, 10, 1).mapped = 4096;
    record(R::kCounter | R::kNamed, 0, 1, "own").mapped = 5;
    record(R::kCounter, 11, 1).mapped = 6;
    record(R::kCounter | R::kHidden, 11, 1).mapped = 7;
    record(R::kCounter, 0, 1).mapped = 0;
    EXPECT_THAT(gather(), IsEmpty());
    EXPECT_EQ(figures(), R"({"Maps":{"VM_KERN_COUNT_11":7,"VM_KERN_COUNT_BOOT_STOLEN":4096,"own":5}})");
    EXPECT_EQ(process->auxData()->mergeWithData(nullptr), nullptr);
}

TEST_F(ZBKernelProcessTest, ReportsFailures) {
    zone("one", {1, 8, 8, 0});
    machine.deallocateCode = kKernFailure;
    EXPECT_THAT(gather(), SizeIs(1));
    const std::string failure = "kernel [0]: vm_deallocate: failure\n";
    EXPECT_EQ(said, failure + failure + failure);
    EXPECT_THAT(process->errors(), IsEmpty());
    machine.memoryInfoCode = kKernFailure;
    EXPECT_THAT(gather(), IsEmpty());
    EXPECT_EQ(said, "kernel [0]: mach_memory_info: failure\n");
    EXPECT_THAT(process->errors(), ElementsAre("kernel [0]: failure"));
}

}  // namespace zorbel::test
