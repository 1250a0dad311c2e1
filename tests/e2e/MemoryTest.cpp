// Figures for processes with known memory, to the page.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <list>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/Restriction.h"
#include "fixtures/SystemSetting.h"

namespace zorbel::e2e {
namespace {

const std::string kUntagged = "untagged (\"VM_ALLOCATE\")";
const std::string kSharedAnonymous = "shared anonymous memory";

/// The process's own row of a category, in a report on this process alone.
Row ownRow(const Fixture& fixture, const std::string& category) {
    return measure({fixture.pid()}).tableOf(fixture.pid())[category];
}

/// Runs the steps, and expects what each adds to a row.
void expectGrowth(const std::string& category, const std::vector<std::pair<Fixture::Step, Row>>& growths) {
    std::vector<Fixture::Step> steps = {[] {}};
    for (const auto& [step, growth] : growths) steps.push_back(step);
    const Fixture fixture(steps);
    Row before = ownRow(fixture, category);
    for (const auto& [step, growth] : growths) {
        fixture.next();
        const Row after = ownRow(fixture, category);
        const Row expected = {before.dirty + growth.dirty, before.swapped + growth.swapped,
                              before.clean + growth.clean, before.reclaimable + growth.reclaimable,
                              before.wired + growth.wired, before.regions + growth.regions};
        EXPECT_EQ(after, expected) << "a growth of " << growth;
        before = after;
    }
}

TEST(MemoryTest, PrivateAnonymousPages) {
    const Region region(300);
    expectGrowth(kUntagged, {{[&] { region.touch(20, 100); }, {.dirty = 100}},
                             {[&] { region.lock(); }, {.dirty = 200, .wired = 300}}});
}

TEST(MemoryTest, PagesFarApart) {
    const std::size_t gibibyte = (std::size_t{1} << 30) / kPageSize;
    const Region region(100 * gibibyte, MAP_PRIVATE | MAP_NORESERVE);
    const auto touchSome = [&] {
        for (const std::size_t place : {0U, 1U, 9U, 40U, 99U}) region.touch(place * gibibyte + place, 1);
    };
    expectGrowth(kUntagged, {{touchSome, {.dirty = 5}}});
}

TEST(MemoryTest, LazilyFreedPages) {
    const Region region(70);
    expectGrowth(kUntagged, {{[&] { region.touch(0, 70), region.freeLazily(); }, {.reclaimable = 70}},
                             // Pages that are written again are no longer reclaimable.
                             {[&] { region.touch(10, 5); }, {.dirty = 5, .reclaimable = -5}}});
}

TEST(MemoryTest, LazilyFreedPagesBesideOtherMemory) {
    // The kernel merges a large allocation and a mapping that nobody has touched.
    constexpr std::size_t kPages = 500;
    const auto step = [] {
        const std::size_t size = 4 * kPages * kPageSize;
        auto* start = static_cast<char*>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        madvise(start, size, MADV_NOHUGEPAGE);
        auto* header = reinterpret_cast<std::size_t*>(start);
        header[1] = kPages * kPageSize | 2;  // As malloc() marks it.
        for (std::size_t i = 0; i < kPages; ++i) start[i * kPageSize + 16] = 1;
        for (int i = 0; i < 2; ++i) madvise(start + 50 * kPageSize, 400 * kPageSize, MADV_FREE);
    };
    const Fixture fixture({[] {}, step});
    const Row before = measure({fixture.pid()}).tableOf(fixture.pid())["TOTAL"];
    fixture.next();
    const Table table = measure({fixture.pid()}).tableOf(fixture.pid());
    const Row after = table.at("TOTAL");
    EXPECT_EQ(after.reclaimable - before.reclaimable, 400);
    EXPECT_EQ(after.dirty - before.dirty, 100);
    EXPECT_EQ(table.at("MALLOC_LARGE").dirty, 100);
}

TEST(MemoryTest, LazilyFreedPagesInBreakdownMode) {
    const Region region(70);
    const Fixture fixture({[&] { region.touch(0, 70); }, [&] { region.freeLazily(); }});
    Words arguments = wide({fixture.pid()});
    arguments.insert(arguments.begin(), "--physZorbel");
    const Row before = runZorbel(arguments).tableOf(fixture.pid())[kUntagged];
    fixture.next();
    const Row after = runZorbel(arguments).tableOf(fixture.pid())[kUntagged];
    EXPECT_EQ(after, (Row{.dirty = before.dirty - 70, .reclaimable = 70, .regions = before.regions}));
}

TEST(MemoryTest, GuardsWithinMappingsAreNoMemory) {
    constexpr int kInstallGuards = 102;  // MADV_GUARD_INSTALL, from Linux 6.13 on.
    constexpr std::size_t kPages = 200;
    const std::size_t size = kPages * kPageSize;
    const auto mapWithGuards = [&](int flags) {
        void* start = mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0);
        return start != MAP_FAILED && madvise(start, size, kInstallGuards) == 0;
    };
    if (!mapWithGuards(MAP_PRIVATE)) GTEST_SKIP() << "the kernel has no such guards";
    expectGrowth(kUntagged, {{[&] { check(mapWithGuards(MAP_PRIVATE), "guards"); }, {.regions = 1}}});
    expectGrowth(kSharedAnonymous, {{[&] { check(mapWithGuards(MAP_SHARED), "guards"); }, {.regions = 1}}});
    // The words of a family's pages show them too.
    const Fixture first({[&] { mapWithGuards(MAP_PRIVATE); }}), second;
    EXPECT_EQ(measure({first.pid(), second.pid()}).summary()["TOTAL"].swapped, 0);
}

TEST(MemoryTest, PagesOfFiles) {
    const Region file(40, MAP_SHARED, newFile(40, "/var/tmp"));
    const Region changed(40, MAP_SHARED, newFile(40, "/var/tmp"));
    const Region copied(40, MAP_PRIVATE, newFile(40, "/var/tmp"));
    expectGrowth("mapped file", {{[&] { file.read(0, 40); }, {.clean = 40}},
                                 {[&] { changed.touch(10, 15); }, {.dirty = 15}},
                                 {[&] { copied.read(0, 40); }, {.clean = 40}},
                                 {[&] { copied.touch(30, 7); }, {.dirty = 7, .clean = -7}}});
}

TEST(MemoryTest, CodeThatWasPatched) {
    const Region code(300, MAP_PRIVATE, newFile(300, "/var/tmp"));
    const auto patch = [&] {
        code.protect(PROT_READ | PROT_WRITE);
        code.touch(100, 3);
        code.protect(PROT_READ | PROT_EXEC);
    };
    expectGrowth("mapped file",
                 {{[&] { code.protect(PROT_READ | PROT_EXEC), code.read(0, 300); }, {.clean = 300}},
                  {patch, {.dirty = 3, .clean = -3}}});
}

TEST(MemoryTest, SharedMemoryCountsOnce) {
    const Region file(20, MAP_SHARED, newFile(20));
    const Region other(3, MAP_SHARED, newFile(3));  // Has the same name.
    const Region anonymous(30, MAP_SHARED);
    const Fixture first({[&] { file.touch(0, 20), other.touch(0, 3), anonymous.touch(0, 18); }});
    const Fixture second({[&] { file.touch(5, 6), anonymous.touch(10, 20); }});
    const Outcome both = measure({first.pid(), second.pid()});
    // Every page of the object counts, once, no matter who touched it.
    const std::pair<std::string, Row> expected[] = {{"memfd", {.dirty = 23, .regions = 4}},
                                                    {kSharedAnonymous, {.dirty = 30, .regions = 2}}};
    for (const auto& [category, row] : expected) {
        EXPECT_EQ(both.summary()[category], row);
        for (const auto& [self, peer] : {std::pair(&first, &second), std::pair(&second, &first)}) {
            EXPECT_EQ(both.tableOf(self->pid()).count(category), 0U);
            const std::string title = "Shared with e2e-tests" + numberOf(peer->pid()) + ":\n";
            EXPECT_EQ(both.tableAfter({headerOf(self->pid()), title})[category], row) << category;
        }
    }
    EXPECT_EQ(measure({first.pid(), second.pid()}).output, both.output);
    // Also in a report on one of them.
    EXPECT_EQ(measure({first.pid()}).summary(), Table());
    EXPECT_EQ(ownRow(first, kSharedAnonymous), (Row{.dirty = 30, .regions = 1}));
    EXPECT_EQ(ownRow(second, "memfd"), (Row{.dirty = 23, .regions = 2}));
}

TEST(MemoryTest, LockedPagesOfSharedObjectsCountOnce) {
    const Region file(20, MAP_SHARED, newFile(20)), anonymous(40, MAP_SHARED);
    const Region own(300);
    own.touch(0, 300);
    const auto use = [&] { file.touch(0, 20), anonymous.touch(0, 40); };
    const auto lock = [&] { use(), file.lock(), anonymous.lock(); };
    // The one that is looked at last may or may not be the one that has locked them.
    const Fixture locker({lock}), other({use}), both({lock});
    for (const std::vector<pid_t>& pids :
         {std::vector{locker.pid(), other.pid()}, {other.pid(), both.pid()}, {locker.pid(), both.pid()}}) {
        Table summary = measure(pids).summary();
        EXPECT_EQ(summary["memfd"], (Row{.dirty = 20, .wired = 20, .regions = 2}));
        EXPECT_EQ(summary[kSharedAnonymous].wired, 40);
    }
    // Pages that a child still has in common with the one that has locked them.
    const Fixture child({[&] { own.lock(); }}), sibling;
    const Row row = measure({child.pid(), sibling.pid()}).summary()[kUntagged];
    EXPECT_GE(row.wired, 300);
    EXPECT_LT(row.wired, 600);
}

TEST(MemoryTest, CopiedPagesCountForEachProcess) {
    const Region copied(20, MAP_PRIVATE, newFile(20, "/dev/shm"));
    const Fixture reader({[&] { copied.read(0, 20); }});
    const Fixture writer({[&] { copied.read(0, 20); }, [&] { copied.touch(0, 5); }});
    // Until the first write, the pages belong to the file, which is in memory.
    const auto both = [&] { return measure({reader.pid(), writer.pid()}); };
    EXPECT_EQ(both().summary()["POSIX shared memory"], (Row{.dirty = 20, .regions = 2}));
    writer.next();
    // The copies are the writer's own, and the file still has what they were made of.
    const Outcome copied5 = both();
    EXPECT_EQ(copied5.tableOf(writer.pid())["POSIX shared memory"], (Row{.dirty = 5, .regions = 1}));
    EXPECT_EQ(copied5.summary()["POSIX shared memory"], (Row{.dirty = 25, .regions = 2}));
}

TEST(MemoryTest, NoRegionHasMorePagesThanAddresses) {
    const auto become = [](const Words& command) {
        return Fixture::Step([command] {
            std::vector<const char*> argv;
            for (const std::string& word : command) argv.push_back(word.c_str());
            argv.push_back(nullptr);
            execvp(argv[0], const_cast<char**>(argv.data()));
        });
    };
    const Region own(300), freed(70), file(40, MAP_SHARED, newFile(40, "/var/tmp"));
    const Region copied(40, MAP_PRIVATE, newFile(40, "/var/tmp")), memory(20, MAP_PRIVATE, newFile(20));
    std::vector<Fixture::Step> steps = {[&] {
        own.touch(20, 100), own.lock(), freed.touch(0, 70), freed.freeLazily(), file.touch(0, 9);
        copied.read(0, 40), copied.touch(30, 7), memory.read(0, 20), memory.touch(0, 3);
    }};
    steps.push_back(become({"sh", "-c", "kill -STOP $$"}));
    steps.push_back(become({"python3", "-c", "import json, os; os.kill(os.getpid(), 19)"}));
    for (const char* kind : {"pie", "fixed", "static", "static-pie", "one-file-segment", "packed-relocations",
                             "huge-alignment", "no-relro"})
        steps.push_back(become({PROGRAM_DIR "/image-program-" + std::string(kind), "40", "3"}));
    Words arguments = {"-v", "-w", "--pid", std::to_string(getpid())};
    std::list<Fixture> fixtures;
    for (const Fixture::Step& step : steps) {
        const Fixture& fixture = fixtures.emplace_back(std::vector{step});
        if (&step > &steps[2]) fixture.next();
        arguments.insert(arguments.end(), {"--pid", std::to_string(fixture.pid())});
    }
    const std::vector<ListedRegion> listing = runZorbel(arguments).listing();
    EXPECT_GT(listing.size(), 15 * steps.size());
    for (const ListedRegion& region : listing) {
        EXPECT_EQ(static_cast<std::uint64_t>(region.size) * kPageSize, region.end - region.start);
        EXPECT_LE(region.resident(), region.size) << region.name;
        EXPECT_LE(region.wired, region.resident()) << region.name;
        for (const std::int64_t pages :
             {region.dirty - region.swapped, region.swapped, region.clean, region.reclaimable})
            EXPECT_GE(pages, 0) << region.name;
    }
}

TEST(MemoryTest, HugePages) {
    const HugePages pages(16);
    if (!pages.areUsable()) GTEST_SKIP() << "takes root, pages of 4 KiB and 32 MiB for huge ones";
    constexpr std::int64_t kSmallPages = kHugePageSize / 4096;
    const Fixture fixture({[] {
        static const Region huge(4, MAP_PRIVATE | MAP_HUGETLB);
        huge.touch(0, 3);
    }});
    EXPECT_EQ(ownRow(fixture, "huge pages"),
              (Row{.dirty = 3 * kSmallPages, .wired = 3 * kSmallPages, .regions = 1}));

    // Pages of a file count once, whoever has touched them, and copies for the process that has made them.
    const int fd = memfd_create("huge", MFD_CLOEXEC | MFD_HUGETLB);
    check(fd >= 0 && ftruncate(fd, 4 * kHugePageSize) == 0, "a file of huge pages");
    const Region file(4, MAP_SHARED | MAP_HUGETLB, dup(fd)), copied(4, MAP_PRIVATE | MAP_HUGETLB, fd);
    const Fixture left({[&] { file.touch(0, 2); }}), right({[&] { file.touch(2, 1); }});
    const Fixture reader({[&] { copied.read(0, 3); }});
    const Fixture writer({[&] { copied.read(0, 3), copied.touch(0, 1); }});
    const std::vector<pid_t> pids = {left.pid(), right.pid(), reader.pid(), writer.pid()};
    const auto expect = [&](const Outcome& outcome) {
        EXPECT_EQ(outcome.summary()["huge pages"].dirty, 4 * kSmallPages);
        EXPECT_EQ(outcome.tableOf(writer.pid())["huge pages"],
                  (Row{.dirty = kSmallPages, .wired = kSmallPages, .regions = 1}));
        EXPECT_EQ(outcome.tableOf(reader.pid()).count("huge pages"), 0U);
    };
    const auto measureOnOlderKernel = [](const std::vector<pid_t>& processes) {
        return runZorbel(wide(processes), {kZorbel}, [] { doWithout({Call::kPageScan, Call::kCachestat}); });
    };
    expect(measure(pids));
    expect(measureOnOlderKernel(pids));
    for (const Fixture* one : {&reader, &writer}) {
        const Row row = {.dirty = 3 * kSmallPages, .wired = 3 * kSmallPages, .regions = 2};
        EXPECT_EQ(ownRow(*one, "huge pages"), row);
        EXPECT_EQ(measureOnOlderKernel({one->pid()}).tableOf(one->pid())["huge pages"], row);
    }
    EXPECT_EQ(measure({left.pid(), right.pid()}).summary()["huge pages"].dirty, 3 * kSmallPages);
}

TEST(MemoryTest, PagesInSwap) {
    const SwapDevice device;
    if (!device.isUsable()) GTEST_SKIP() << "takes root and an unused /dev/zram0";
    const Region own(50);
    expectGrowth(kUntagged, {{[&] { own.touch(0, 50); }, {.dirty = 50}},
                             {[&] { own.pageOut(); }, {.swapped = 50}},
                             {[&] { own.touch(0, 10); }, {.swapped = -10}}});
    // Swapped pages of shared memory show in every process that maps it.
    const Region shared(20, MAP_SHARED, newFile(20));
    const Fixture first({[&] { shared.touch(0, 20), shared.pageOut(); }});
    const Fixture second({[&] { shared.touch(0, 4); }});
    EXPECT_EQ(measure({first.pid(), second.pid()}).summary()["memfd"],
              (Row{.dirty = 20, .swapped = 16, .regions = 2}));
}

}  // namespace
}  // namespace zorbel::e2e
