// What an older kernel does not have is done without: the report stays the same, or differs as documented.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/Restriction.h"
#include "fixtures/SystemSetting.h"

namespace zorbel::e2e {
namespace {

Outcome measureWithout(const std::vector<Call>& calls, const std::vector<pid_t>& pids) {
    Words arguments = wide(pids);
    arguments.insert(arguments.begin(), "-v");
    return runZorbel(arguments, {kZorbel}, [&] { doWithout(calls); });
}

TEST(OlderKernelTest, SameReportWithoutTheScan) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const Region memory(200), disk(200, MAP_PRIVATE, newFile(200, "/var/tmp"));
    memory.touch(0, 150), disk.touch(0, 100);
    const Region changed(40, MAP_SHARED, newFile(40, "/var/tmp"));
    const Region copied(20, MAP_PRIVATE, newFile(20, "/dev/shm"));
    const Region memfd(64, MAP_SHARED, newFile(64)), privateMemfd(30, MAP_PRIVATE, newFile(30));
    const Region freed(70), locked(30);
    const Fixture first({[&] {
        disk.read(100, 50), changed.touch(10, 15), copied.read(0, 20), memfd.touch(0, 10);
        freed.touch(0, 70), freed.freeLazily(), freed.touch(0, 4);
    }});
    const Fixture second({[&] {
        memory.touch(0, 20), disk.touch(0, 10), disk.touch(150, 5), copied.read(0, 20), copied.touch(3, 5);
        memfd.touch(5, 30), privateMemfd.touch(2, 8), locked.lock();
    }});
    const Fixture third({[&] { disk.touch(0, 100), memory.touch(100, 100), memfd.read(0, 35); }});
    const std::vector<pid_t> pids = {first.pid(), second.pid(), third.pid()};
    const Outcome expected = measureWithout({}, pids);
    EXPECT_EQ(measureWithout({Call::kPageScan}, pids).output, expected.output);
    // Without cachestat, what no process has in its page tables is missing: here the pages of a file that a
    // process has read only to copy them.
    Table summary = expected.summary();
    summary["memfd"].dirty -= 8;
    summary["TOTAL"].dirty -= 8;
    for (const auto& calls : {std::vector{Call::kCachestat}, std::vector{Call::kPageScan, Call::kCachestat}})
        EXPECT_EQ(measureWithout(calls, pids).summary(), summary);
}

TEST(OlderKernelTest, SwappedCopiesOfMemoryFilesAreTheProcesssOwn) {
    const SwapDevice device;
    if (!device.isUsable()) GTEST_SKIP() << "takes root and an unused /dev/zram0";
    const int fd = newFile(40);
    const Region file(40, MAP_SHARED, dup(fd)), written(40, MAP_PRIVATE, dup(fd));
    const Region sealed(40, MAP_PRIVATE, fd);
    const Fixture first({[&] { file.touch(0, 40), file.pageOut(); }});
    const Fixture second({[&] {
        written.touch(0, 5), written.pageOut();
        sealed.touch(10, 3), sealed.pageOut(), sealed.protect(PROT_READ);
    }});
    // One alone in a report, and a family.
    for (const auto& pids : {std::vector{second.pid()}, std::vector{first.pid(), second.pid()}}) {
        const Outcome expected = measureWithout({}, pids);
        EXPECT_EQ(expected.tableOf(second.pid())["memfd"].swapped, pids.size() == 1 ? 32 + 8 : 8);
        EXPECT_EQ(expected.summary()["memfd"].swapped, pids.size() == 1 ? 0 : 32 + 8);
        EXPECT_EQ(measureWithout({Call::kPageScan}, pids).output, expected.output);
    }
    // smaps shows what is in swap of a file, and page tables only what is in memory.
    const std::vector<pid_t> pids = {first.pid(), second.pid()};
    const Outcome old = measureWithout({Call::kPageScan, Call::kCachestat}, pids);
    EXPECT_EQ(old.tableOf(second.pid())["memfd"].swapped, 8);
    EXPECT_EQ(old.summary()["memfd"].swapped, 32 + 8);
    EXPECT_EQ(measureWithout({Call::kCachestat}, pids).summary()["memfd"].swapped, 8);
}

}  // namespace
}  // namespace zorbel::e2e
