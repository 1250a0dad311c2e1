#include "inspect/ZBProcess.h"

#include <array>
#include <cstring>
#include <tuple>

#include "support/Targets.h"

namespace zorbel::test {

using namespace testing;

using std::string_literals::operator""s;

class ZBProcessTest : public WalkTest {
  protected:
    /// The only region of a process.
    const ZBMemoryRegion& onlyRegion(ScriptedRegion region) {
        baker.regions.clear();
        baker.maps(0x1000, region);
        gather();
        return process->memoryRegions().at(0);
    }

    void failAtThirdLookup(KernReturn code) {
        baker.beforeLookup = [this, code] { baker.lookupCode = baker.lookups == 3 ? code : kKernSuccess; };
        gather();
    }
};

TEST_F(ZBProcessTest, NameComesFromExecutableOrRecord) {
    BsdInfoRecord record{.pbi_pid = 100};
    const auto name = [&](const std::optional<std::string>& area) {
        baker.argumentArea = area;
        return ZBProcess::_nameForBsdInfo(machine, record);
    };
    EXPECT_EQ(name(std::nullopt), "Unknown");
    std::memset(record.pbi_comm, 'c', sizeof record.pbi_comm);
    EXPECT_EQ(name(std::nullopt), std::string(16, 'c'));
    std::memset(record.pbi_name, 'l', sizeof record.pbi_name);
    for (const std::string& broken : {""s, "\0\0\0\0\0\0"s, "abc"s, "\1\0\0\0x"s})
        EXPECT_EQ(name(broken), std::string(32, 'l'));
    EXPECT_EQ(name("\2\0\0\0/usr/bin/foo\0\0\0foo\0-x\0"s), "foo");
    EXPECT_EQ(name("\0\0\0\0c d\0"s), "c d");
    EXPECT_EQ(name("\1\0\0\0/usr/bin/cut!"s), "cut");  // The last byte always terminates the text.
}

TEST_F(ZBProcessTest, SizesFollowPurgeableStateFileAndMode) {
    using Pages = std::array<std::uint64_t, 5>;  // Dirty, swapped, clean, reclaimable, wired.
    const auto sizesOf = [this](const ScriptedRegion& mapped) {
        const ZBMemoryRegion& region = onlyRegion(mapped);
        return Pages{region.dirtySize() / kPage, region.swappedSize() / kPage,
                     region.cleanNonSpecSize() / kPage, region.reclaimableSize() / kPage,
                     region.wiredSize() / kPage};
    };
    ScriptedRegion region{.pages = 20, .info = {.pages_resident = 10, .pages_swapped_out = 4}};
    region.info.pages_dirtied = 3;
    region.info.pages_reusable = 2;
    region.info.user_wired_count = 1;
    const Pages allDirty = {8, 4, 0, 2, 1};
    const Pages kernelsDirty = {3, 4, 5, 2, 1};
    region.purgeable = kPurgeableVolatile;
    EXPECT_EQ(sizesOf(region), (Pages{0, 0, 0, 10, 1}));
    region.purgeable = kPurgeableEmpty;
    EXPECT_EQ(sizesOf(region), (Pages{0, 0, 0, 20, 1}));
    region.purgeable = kPurgeableNonVolatile;
    EXPECT_EQ(sizesOf(region), allDirty);
    region.info.external_pager = 1;
    EXPECT_EQ(sizesOf(region), kernelsDirty);
    region.info.external_pager = 0;
    machine.breakDownMode = 1;
    EXPECT_EQ(sizesOf(region), kernelsDirty);
    EXPECT_EQ(sizesOf({1U << 31, {.pages_swapped_out = 1U << 31}}), (Pages{0, 1U << 31, 0, 0, 0}));
    // Counts that were read at different moments wrap at 32 bits.
    EXPECT_EQ(sizesOf({.info = {.pages_resident = 1, .pages_dirtied = 2}}), (Pages{2, 0, 0xFFFFFFFF, 0, 0}));
}

TEST_F(ZBProcessTest, NamesShowWhatIsMapped) {
    const auto names = [this](ScriptedRegion region) {
        const ZBMemoryRegion& gathered = onlyRegion(region);
        return gathered.name().text() + (gathered.purgeableNonVolatile() ? " ! " : " ") +
               gathered.detailedName().text();
    };
    EXPECT_EQ(names({.info = {.user_tag = 0}}), "untagged (\"VM_ALLOCATE\") ");
    EXPECT_EQ(names({.info = {.user_tag = kStack}, .path = Name("/bin/x")}), "mapped file /bin/x");
    EXPECT_EQ(names({.info = {.user_tag = kStack, .external_pager = 1}}), "mapped file ");
    machine.breakDownMode = 1;
    EXPECT_EQ(names({.info = {.user_tag = kStack}, .purgeable = kPurgeableNonVolatile}),
              "stack (purgeable non-volatile) ! ");
    EXPECT_EQ(names({.path = Name("/bin/x"), .purgeable = kPurgeableNonVolatile}), "mapped file /bin/x");
}

TEST_F(ZBProcessTest, WalksToTheLastAddress) {
    baker.maps(0x0, {}).maps(0x1000, {}).maps(0xFFFF'FFFF'FFFF'F000, {});
    baker.maps(0x5000, {.pages = 2, .info = {.offset = 0x2000, .user_tag = kStack, .object_id = 77}});
    gather();
    EXPECT_THAT(starts(), ElementsAre(0x0, 0x1000, 0x5000, 0xFFFF'FFFF'FFFF'F000));
    EXPECT_EQ(baker.lookups, 4);
    const ZBMemoryRegion& region = process->memoryRegions()[2];
    EXPECT_EQ(std::tuple(region.end(), region.user_tag(), region.object_id(), region.offset()),
              std::tuple(0x7000U, kStack, 77U, 0x2000U));
}

TEST_F(ZBProcessTest, RegionThatGrewDownwardsIsCountedWhole) {
    baker.maps(0x1000, {}).maps(0x8000, {}).maps(0xA000, {});
    baker.beforeLookup = [this] {
        if (baker.lookups != 2) return;
        baker.regions.erase(0x8000);
        baker.maps(0x0, {.pages = 9});
    };
    gather();
    EXPECT_THAT(starts(), ElementsAre(0x1000, 0x0, 0xA000));
}

TEST_F(ZBProcessTest, RegionWithTheLastTagEndsTheWalk) {
    const ScriptedRegion last{.info = {.user_tag = kTagAllOnes}};
    baker.maps(0x1000, {}).maps(0x2000, last).maps(0x3000, last).maps(0x4000, {}).maps(0x5000, last);
    gather();
    EXPECT_THAT(starts(), ElementsAre(0x1000, 0x2000, 0x3000));
    EXPECT_EQ(process->memoryRegions().back().name().text(), "Non-volatile physical zorbel");
    // After it, even a failure is only the end.
    failAtThirdLookup(kKernFailure);
    EXPECT_THAT(process->errors(), IsEmpty());
    EXPECT_EQ(said, "");
}

TEST_F(ZBProcessTest, FailureEndsTheWalk) {
    constexpr std::uint32_t kZombie = BsdShortInfoRecord::kStateZombie;
    const std::tuple<KernReturn, int, std::uint32_t, std::string> rows[] = {
        {kMachSendInvalidDest, ESRCH, 0, " (process exited)"},
        {kMachSendInvalidDest, 0, kZombie, " (zombie)"},
        // The process still runs, or its state can't be read, or the code is another one.
        {kMachSendInvalidDest, 0, 0, ""},
        {kMachSendInvalidDest, EPERM, kZombie, ""},
        {kKernFailure, ESRCH, kZombie, ""},
    };
    baker.maps(0x1000, {}).maps(0x2000, {}).maps(0x3000, {});
    for (const auto& [code, shortRecordError, state, excuse] : rows) {
        baker.shortRecordError = shortRecordError;
        baker.state = state;
        failAtThirdLookup(code);
        const std::string text = machine.mach_error_string(code);
        EXPECT_THAT(starts(), ElementsAre(0x1000, 0x2000));
        EXPECT_EQ(said, "mach_vm_region_recurse: " + text +
                            "\nbailing out for process baker [100]; data may be incomplete!\n");
        EXPECT_THAT(excuse.empty() ? process->errors() : process->warnings(),
                    ElementsAre("baker [100]: " + text + excuse));
        EXPECT_THAT(excuse.empty() ? process->warnings() : process->errors(), IsEmpty());
    }
}

}  // namespace zorbel::test
