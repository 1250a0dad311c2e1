// What users other than root get: as much as their rights show, and never a wrong figure without a word.

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/Restriction.h"
#include "fixtures/SystemSetting.h"

namespace zorbel::e2e {
namespace {

using namespace testing;

const std::string kUntagged = "untagged (\"VM_ALLOCATE\")";

/// A report to a user who is not root, but has these capabilities.
Outcome measureAsNobody(const std::vector<pid_t>& pids, const std::vector<unsigned>& capabilities = {}) {
    return runZorbel(wide(pids), {kZorbel}, [&] { becomeNobody(capabilities); });
}

TEST(PrivilegeTest, WhoMayTraceNeedsNotBeRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const Region memory(200), disk(40, MAP_PRIVATE, newFile(40, "/var/tmp"));
    const Region changed(40, MAP_SHARED, newFile(40, "/var/tmp")), memfd(9, MAP_SHARED, newFile(9));
    const Fixture fixture({[&] {
        memory.touch(0, 150), disk.touch(0, 10), disk.read(20, 4), changed.touch(0, 6), memfd.touch(0, 5);
    }});
    Table expected = measure({fixture.pid()}).tableOf(fixture.pid());
    for (const unsigned capability : {unsigned{CAP_SYS_PTRACE}, unsigned{CAP_PERFMON}}) {
        const Outcome outcome = measureAsNobody({fixture.pid()}, {capability});
        EXPECT_EQ(outcome.error, "");
        Table table = outcome.tableOf(fixture.pid());
        EXPECT_EQ(table["mapped file"], expected["mapped file"]);
        EXPECT_EQ(table["memfd"], (Row{.dirty = 5, .regions = 1}));
        EXPECT_EQ(table["TOTAL"].dirty, expected["TOTAL"].dirty);
        EXPECT_GE(table[kUntagged].dirty, 150);
    }
}

/// Whether zorbel opens smaps of the process, when the user without privilege runs it.
bool readsSmaps(pid_t pid) {
    const std::string copy = "/tmp/zorbel-" + std::to_string(getpid());  // The build may be out of reach.
    const std::string log = copy + ".log";
    std::filesystem::copy_file(kZorbel, copy);
    const std::string noLeaks = "ASAN_OPTIONS=detect_leaks=0";  // Leaks can't be looked for under a tracer.
    const Words command = {"strace",
                           "-f",
                           "-E",
                           noLeaks,
                           "-e",
                           "trace=openat",
                           "-o",
                           log,
                           "setpriv",
                           "--reuid=65534",
                           "--regid=65534",
                           "--clear-groups",
                           copy};
    EXPECT_EQ(runZorbel(wide({pid}), command).status, 0);
    std::ifstream file(log);
    const std::string opened(std::istreambuf_iterator<char>(file), {});
    for (const std::string& path : {copy, log}) unlink(path.c_str());
    EXPECT_THAT(opened, HasSubstr("\"maps\""));
    return opened.find("\"smaps\"") != std::string::npos;
}

TEST(PrivilegeTest, SmapsIsReadForFilesThatWereWrittenOnly) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    if (std::system("strace -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "takes strace";
    const Region memory(20000);  // Of smaller processes, smaps may be read for lazily freed pages.
    const int file = newFile(40, "/var/tmp");
    const Region changed(40, MAP_SHARED, dup(file)), seen(40, MAP_SHARED, file);
    seen.protect(PROT_READ);
    const auto beLarge = [&] { becomeNobody(), memory.touch(0, 20000); };
    const Fixture without({beLarge});
    if (readsSmaps(without.pid())) GTEST_SKIP() << "the machine has lazily freed pages";
    const Fixture reader({[&] { beLarge(), seen.read(0, 40); }});
    const Fixture writer({[&] { beLarge(), changed.touch(0, 6); }});
    EXPECT_EQ(measureAsNobody({writer.pid()}).tableOf(writer.pid())["mapped file"].dirty, 6);
    EXPECT_TRUE(readsSmaps(writer.pid()));
    // The same pages, but not written by this process: they count as clean.
    EXPECT_EQ(measureAsNobody({reader.pid()}).tableOf(reader.pid())["mapped file"],
              (Row{.clean = 40, .regions = 2}));
    EXPECT_FALSE(readsSmaps(reader.pid()));
}

TEST(PrivilegeTest, LazilyFreedPagesWithoutTheFlagsOfFrames) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const Region freed(70);
    const Fixture fixture(
        {[&] { becomeNobody(), freed.touch(0, 70), freed.freeLazily(), freed.touch(0, 5); }});
    for (const auto& capabilities : {std::vector<unsigned>(), std::vector<unsigned>{CAP_SYS_ADMIN}}) {
        Table table = measureAsNobody({fixture.pid()}, capabilities).tableOf(fixture.pid());
        EXPECT_EQ(table["TOTAL"].reclaimable, 65);
    }
}

TEST(PrivilegeTest, SharedMemoryIsWhatAnyTargetHasTouched) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const int fd = newFile(68);
    const Region memory(64, MAP_SHARED, dup(fd)), copied(64, MAP_PRIVATE, fd);
    const auto quarter = [&](std::size_t number) {
        // Neighbours have two pages in common. The last two pages of all nobody touches.
        return Fixture::Step(
            [&memory, number] { becomeNobody(), memory.touch(number * 16, number < 3 ? 18 : 14); });
    };
    const Fixture first({quarter(0)}), second({quarter(1)}), third({quarter(2)}), fourth({quarter(3)});
    const std::vector<pid_t> pids = {first.pid(), second.pid(), third.pid(), fourth.pid()};
    const Outcome all = measureAsNobody(pids);
    EXPECT_EQ(all.summary()["memfd"], (Row{.dirty = 62, .regions = 8}));
    std::vector<pid_t> reversed(pids.rbegin(), pids.rend());
    EXPECT_EQ(measureAsNobody(reversed).summary()["memfd"], (Row{.dirty = 62, .regions = 8}));
    const Outcome onOlderKernel = runZorbel(wide(pids), {kZorbel}, [] {
        becomeNobody();
        doWithout({Call::kPageScan, Call::kCachestat});
    });
    EXPECT_EQ(onOlderKernel.summary()["memfd"], (Row{.dirty = 62, .regions = 8}));
    EXPECT_EQ(measureAsNobody({second.pid()}).tableOf(second.pid())["memfd"],
              (Row{.dirty = 18, .regions = 2}));
    // A private mapping shows pages of the file, too, and has its copies besides.
    const Fixture copies({[&] { becomeNobody(), copied.read(0, 20), copied.touch(30, 5); }});
    const Outcome both = measureAsNobody({first.pid(), copies.pid()});
    EXPECT_EQ(both.tableOf(copies.pid())["memfd"], (Row{.dirty = 5, .regions = 1}));
    const std::int64_t ofFile = both.summary()["memfd"].dirty - 5;
    EXPECT_GE(ofFile, 20);  // Reading maps some pages around, of those that exist.
    EXPECT_LE(ofFile, 62);
}

TEST(PrivilegeTest, PrivateMemoryOfAFamilyIsBetweenTheLargestAndTheSum) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const Region memory(300), disk(200, MAP_PRIVATE, newFile(200, "/var/tmp"));
    memory.touch(0, 200), disk.touch(0, 100);
    const SwapDevice device;  // Without one, all stays in memory.
    const Fixture first({[&] { becomeNobody(), memory.touch(50, 100), disk.touch(150, 50); }});
    const Fixture second({[&] {
        becomeNobody(), memory.touch(200, 100);
        if (device.isUsable()) memory.pageOut(), memory.touch(20, 30);
    }});
    const Fixture third({[&] { becomeNobody(), disk.touch(0, 100); }});
    const std::vector<pid_t> pids = {first.pid(), second.pid(), third.pid()};
    Table summary = measureAsNobody(pids).summary(), truth = measure(pids).summary();
    for (const std::string& category : {kUntagged, std::string("mapped file"), std::string("TOTAL")}) {
        std::int64_t largest = 0, sum = 0;
        for (const pid_t pid : pids) {
            const std::int64_t own = measure({pid}).tableOf(pid)[category].dirty;
            largest = std::max(largest, own);
            sum += own;
        }
        EXPECT_GE(summary[category].dirty, largest) << category;
        EXPECT_LE(summary[category].dirty, sum) << category;
        EXPECT_GT(sum, truth[category].dirty);
        EXPECT_GE(truth[category].dirty, largest);
    }
}

}  // namespace
}  // namespace zorbel::e2e
