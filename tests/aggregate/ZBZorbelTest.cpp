#include "aggregate/ZBZorbel.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "support/Targets.h"

namespace zorbel::test {

using namespace testing;

using enum SegmentCode;

constexpr std::uint64_t kMiB = 0x100000;

/// Results of the coordinator. Tests identify objects by the names of their regions.
class ZBZorbelTest : public CoordinatorTest {
  protected:
    /// Each group's pids and the names of its objects.
    std::vector<std::string> groups() const {
        const ZBZorbelSharingData data = zorbel->_sharingData();
        std::vector<std::string> all;
        for (const auto& [group, objects] : data.processGroupToObjects()) {
            std::string& text = all.emplace_back();
            for (const ZBProcess* member : group.members()) text += std::to_string(member->pid()) + " ";
            for (const ZBMemoryObject* object : objects) text += object->name().text();
        }
        return all;
    }

    /// The names in order of the categories of all processes, and the totals over them.
    std::vector<std::string> names(bool summarize) {
        categories = ZBZorbel::_summarizedCategoriesForCategories(zorbel->_categoriesForAllProcesses(),
                                                                  summarize, total);
        std::vector<std::string> all;
        for (const Name name : ZBZorbel::_sortedKeysForCategories(categories)) all.push_back(name.text());
        return all;
    }

    Categories categories;
    SizeTotals total;
};

TEST_F(ZBZorbelTest, ReadsHighestPidFirstUntilCancelled) {
    for (const std::int32_t pid : {1, 2, 3, 4}) machine.process(pid, "worker").maps(0, {});
    machine.process(5, "canceller").maps(0, {}).beforeReading = [this] { zorbel->cancel(); };
    machine.process(6, "first").maps(0, {});
    gather(1);
    // Processes that were read keep their regions.
    EXPECT_THAT(machine.phases, ElementsAre("read 6", "read 5", "settle", "forget 5", "forget 6"));
    std::vector<std::size_t> regions;
    for (const auto& process : zorbel->processes()) regions.push_back(process->memoryRegions().size());
    EXPECT_THAT(regions, ElementsAre(0, 0, 0, 0, 1, 1));
    EXPECT_THAT(ZBProcess::globalErrors(),
                ElementsAre("Zorbel exited early due to SIGINT and did not finish gathering all data"));
}

TEST_F(ZBZorbelTest, WorkersReadInParallel) {
    constexpr std::ptrdiff_t kWorkers = 3;
    std::atomic<int> present = 0;
    std::atomic<int> waiting = 0;
    for (std::int32_t pid = 1; pid <= kWorkers; ++pid)
        machine.process(pid, "worker").beforeReading = [&] {
            ++present;
            for (int i = 0; i < 5000 && present < kWorkers; ++i) usleep(1000);
            if (present == kWorkers) ++waiting;
        };
    gather(kWorkers);
    EXPECT_EQ(waiting, kWorkers);  // Each has seen all the others.
}

TEST_F(ZBZorbelTest, SettlesBetweenReadingAndWalking) {
    for (std::int32_t pid = 1; pid <= 40; ++pid)
        machine.process(pid, "worker").maps(0, {}).beforeLookup = [this, pid] {
            EXPECT_TRUE(machine.hasReached("settle")) << pid;
        };
    for (const unsigned workers : {1U, 2U, 16U}) {
        machine.phases.clear();
        gather(workers);
        const auto settled = std::ranges::find(machine.phases, "settle");
        ASSERT_EQ(settled - machine.phases.begin(), 40);
        EXPECT_EQ(machine.phases.end() - settled, 41);
    }
}

TEST_F(ZBZorbelTest, GathersManyProcessesAtOnce) {
    constexpr std::int32_t kProcesses = 500;
    for (std::int32_t pid = 1; pid <= kProcesses; ++pid) {
        const auto pages = static_cast<std::uint32_t>(pid);
        machine.process(pid, "worker")
            .maps(0, {.pages = kProcesses, .info = {.user_tag = kStack, .pages_resident = pages}})
            .maps(0x10000000, {.info = {.pages_resident = 1, .object_id = 1}});
    }
    gather();
    names(false);
    EXPECT_EQ(total.sizes.dirty, (kProcesses * (kProcesses + 1) / 2 + 1) * kPage);
    EXPECT_EQ(total.totalRegions, 2U * kProcesses);
    EXPECT_EQ(zorbelOf(7), 8U * kPage);
}

TEST_F(ZBZorbelTest, ChangedCopiesArePrivate) {
    for (const std::int32_t pid : {1, 2, 3}) {
        FixedProcess& each = fixed(pid);
        each.add("dirty", 10, 4096).setShare_mode(kShareModeCopyOnWrite);
        each.add("dirty", 10, 4096).setShare_mode(kShareModeCopyOnWrite);
        ZBMemoryRegion& swapped = each.add("swapped", 11, 0);
        swapped.setShare_mode(kShareModeCopyOnWrite);
        swapped.setSwappedSize(1);
        each.add("clean", 10, 0).setShare_mode(kShareModeCopyOnWrite);
        each.add("shared", 12, 4096).setShare_mode(kShareModeShared);
    }
    gather();
    EXPECT_THAT(groups(), UnorderedElementsAre("1 dirtyswapped", "2 dirtyswapped", "3 dirtyswapped",
                                               "1 2 3 cleanshared"));
    EXPECT_EQ(zorbelOf(3), 2 * kPage + 1);  // Each object once.
}

TEST_F(ZBZorbelTest, MemoryWithoutObjectIsNotShared) {
    for (const std::int32_t pid : {1, 2}) {
        FixedProcess& each = fixed(pid);
        each.add("A", 0, 4096);
        each.add("B", 10 + static_cast<std::uint64_t>(pid), processes.size());
    }
    gather();
    EXPECT_THAT(groups(), UnorderedElementsAre("1 AB", "2 AB"));
}

TEST_F(ZBZorbelTest, TargetsWithEqualPidsStaySeparate) {
    for (const std::uint64_t bytes : {10U, 30U, 30U, 20U}) {
        FixedProcess& each = fixed(7);
        each.add("own", 100 + processes.size(), bytes);
        each.add("shared", 5, 1);
        ZBMemoryRegion& copied = each.add("copied", 6, 1);
        copied.setShare_mode(kShareModeCopyOnWrite);
    }
    gather();
    EXPECT_THAT(groups(), UnorderedElementsAre("7 owncopied", "7 owncopied", "7 owncopied", "7 owncopied",
                                               "7 7 7 7 shared"));
    // Of equal ones the first selected comes first.
    std::vector<std::pair<std::size_t, std::uint64_t>> order;
    for (const ZBProcess* process : zorbel->_getProcessListSortedByZorbel())
        order.emplace_back(process->ordinal(), zorbel->_zorbelOf(*process));
    EXPECT_THAT(order, ElementsAre(Pair(1, 32), Pair(2, 32), Pair(3, 22), Pair(0, 12)));
}

TEST_F(ZBZorbelTest, SegmentsAndSharedCacheAreSeparateObjects) {
    for (const std::int32_t pid : {1, 2}) {
        FixedProcess& each = fixed(pid);
        each._is64bit = pid == 1;
        // Data segments are like other memory. In the shared cache, addresses identify objects.
        for (const auto& [name, segment, cacheStart] : {std::tuple{"T", kText, 0U},
                                                        {"L", kLinkedit, 0U},
                                                        {"D", kData, 0U},
                                                        {"N", kNotInImage, 0U},
                                                        {"C", kText, 10U},
                                                        {"E", kText, 11U},
                                                        {"C", kData, 10U}}) {
            ZBMemoryRegion& region = each.add(name, 10, 0);
            region.setSegment(segment);
            region.setInSharedCache(cacheStart != 0);
            region.setStart(cacheStart);
        }
    }
    gather();
    EXPECT_THAT(groups(), UnorderedElementsAre("1 2 TLD", "1 CE", "2 CE"));
}

TEST_F(ZBZorbelTest, SmallSegmentsAndCleanMemoryFoldIntoOther) {
    FixedProcess& process = fixed(1);
    const auto add = [&](const char* name, std::uint64_t dirty, std::uint64_t swapped, std::uint64_t clean,
                         SegmentCode segment = kNotInImage) {
        ZBMemoryRegion& region = process.add(name, 100 + process.memoryRegions().size(), dirty);
        region.setSwappedSize(swapped);
        region.setCleanNonSpecSize(clean);
        region.setSegment(segment);
        region.setPurgeableNonVolatile(std::string_view(name).ends_with("purgeable"));
    };
    add("text at limit", kMiB, 0, 0, kText);
    add("text above", kMiB + 1, 0, 0, kText);
    add("data at limit", kMiB - 1, 1, 0, kData);
    add("data above", kMiB - 1, 2, 0, kData);
    add("linkedit", 0, 0, 5 * kMiB, kLinkedit);
    add("other segment", 1, 0, 0, kUnspecified);
    add("heap", 4096, 0, 0);
    add("clean", 0, 0, 9 * kMiB);
    add("clean purgeable", 0, 0, 1);
    add("empty purgeable", 0, 0, 0);
    process.memoryRegions().back().setWiredSize(7);
    process.memoryRegions().back().setReclaimableSize(8);
    gather();
    EXPECT_THAT(names(true),
                ElementsAre("Other", "data above", "text above", "heap", "other segment", "clean purgeable"));
    const ZBMemoryCategory& other = *categories.at(Name("Other"));
    EXPECT_EQ(other.totalDirtySize() + other.totalSwappedSize(), 2 * kMiB);
    EXPECT_EQ(other.totalRegions(), 5);
    // Folded categories still count.
    const auto all = FieldsAre(FieldsAre(4 * kMiB - 1 + 4096 + 1, 3, 14 * kMiB + 1, 8, 7), 10);
    EXPECT_THAT(total, all);
    EXPECT_EQ(names(false).size(), 10U);
    EXPECT_THAT(total, all);
}

TEST_F(ZBZorbelTest, SortsByChargeThenReclaimableThenCleanThenName) {
    FixedProcess& process = fixed(1);
    process.add("b", 1, 10);
    process.add("a", 2, 10);
    process.add("clean", 3, 10).setCleanNonSpecSize(1);
    process.add("reclaimable", 4, 10).setReclaimableSize(1);
    process.add("swapped", 5, 1).setSwappedSize(10);
    gather();
    EXPECT_THAT(names(false), ElementsAre("swapped", "reclaimable", "clean", "a", "b"));
}

TEST_F(ZBZorbelTest, ObjectHasTheNameOfItsFirstRegion) {
    fixed(1).add("mine", 10, 4096);
    fixed(2).add("theirs", 10, 4096).setSegment(kData);
    gather();
    EXPECT_THAT(names(true), ElementsAre("mine"));  // Has that region's segment, otherwise it would fold.
    EXPECT_THAT(total, FieldsAre(FieldsAre(4096, 0, 0, 0, 0), 2));
}

}  // namespace zorbel::test
