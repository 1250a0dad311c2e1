// Memory that several processes have in common counts once, page by page.

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"

namespace zorbel::e2e {
namespace {

using namespace testing;

/// Private copies of pages of a file on disk, which nothing else has this name for.
constexpr const char* kCopied = "mapped file";

TEST(SharedPagesTest, ForkedMemoryCountsOnce) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const Region memory(200, MAP_PRIVATE, newFile(200, "/var/tmp"));
    memory.touch(0, 100);
    const Fixture first;
    const Fixture second({[&] { memory.touch(0, 10), memory.touch(150, 5); }});
    const Fixture third({[&] { memory.touch(0, 100); }});  // Has copied all.
    const Outcome all = measure({first.pid(), second.pid(), third.pid()});
    EXPECT_EQ(all.summary()[kCopied].dirty, 100 + 15 + 100);
    EXPECT_EQ(all.tableOf(first.pid())[kCopied].dirty, 10);
    EXPECT_EQ(all.tableOf(second.pid())[kCopied].dirty, 15);
    EXPECT_EQ(all.tableOf(third.pid())[kCopied].dirty, 100);
    const std::string peers = "Shared with e2e-tests" + numberOf(second.pid()) + ":\n";
    EXPECT_EQ(all.tableAfter({headerOf(first.pid()), peers})[kCopied].dirty, 90);
    // Alone in a report, a process has all that it maps.
    EXPECT_EQ(measure({first.pid()}).tableOf(first.pid())[kCopied].dirty, 100);
    EXPECT_EQ(measure({second.pid()}).tableOf(second.pid())[kCopied].dirty, 105);
}

TEST(SharedPagesTest, RegionsWithPagesInCommonByWayOfOthersAreOneGroup) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    // Each link of the chain rewrites the part that only it and the next one share.
    const Region memory(30, MAP_PRIVATE, newFile(30, "/var/tmp"));
    memory.touch(0, 30);
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const Fixture first({[&] {
        memory.touch(0, 10);
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            memory.touch(10, 20);
            const pid_t self = getpid();
            if (write(pipe[1], &self, sizeof self) != sizeof self) _exit(1);
            for (;;) pause();
        }
    }});
    const Fixture other({[&] { memory.touch(0, 10), memory.touch(20, 10); }});
    pid_t second = 0;
    ASSERT_EQ(read(pipe[0], &second, sizeof second), static_cast<ssize_t>(sizeof second));
    const Outcome all = measure({first.pid(), second, other.pid()});
    // first and second: 0 to 9. first and other: 10 to 19, which second has rewritten.
    EXPECT_EQ(all.summary()[kCopied].dirty, 10 + 10 + 10 + 20 + 20);
    const auto table = all.tableAfter({headerOf(second), "Shared with "})[kCopied];
    EXPECT_EQ(table, (Row{.dirty = 20, .regions = 3}));
}

TEST(SharedPagesTest, HugePagesThatOnlyTheChildHasSplit) {
    if (geteuid() != 0 || kPageSize != 4096) GTEST_SKIP() << "needs root and pages of 4 KiB";
    constexpr std::size_t kHuge = 8;
    constexpr std::int64_t kPages = kHuge * kHugePageSize / 4096;
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const Fixture parent({[&] {
        auto* memory = static_cast<char*>(mmap(nullptr, (kHuge + 1) * kHugePageSize, PROT_READ | PROT_WRITE,
                                               MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        memory += kHugePageSize - reinterpret_cast<std::uintptr_t>(memory) % kHugePageSize;
        madvise(memory, kHuge * kHugePageSize, MADV_HUGEPAGE);
        for (std::size_t i = 0; i < kHuge * kHugePageSize; i += kPageSize) memory[i] = 1;
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            // The kernel calls a huge page exclusive if its first page is.
            for (std::size_t i = 0; i < kHuge; ++i) memory[i * kHugePageSize] = 2;
            const pid_t self = getpid();
            if (write(pipe[1], &self, sizeof self) != sizeof self) _exit(1);
            for (;;) pause();
        }
    }});
    pid_t child = 0;
    ASSERT_EQ(read(pipe[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    const std::int64_t both = measure({parent.pid(), child}).summary()["TOTAL"].dirty;
    const std::int64_t one = measure({parent.pid()}).tableOf(parent.pid())["TOTAL"].dirty;
    EXPECT_GE(one, kPages);
    EXPECT_NEAR(static_cast<double>(both), static_cast<double>(one), 300);  // Some pages of the C library's.
}

TEST(SharedPagesTest, OneAddressSpaceCountsOnce) {
    const Fixture fixture({[] {
        static char stack[1 << 16];
        const auto sleep = [](void*) -> int {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) pause();
        };
        clone(sleep, stack + sizeof stack, CLONE_VM, nullptr);
    }});
    const std::int64_t alone = measure({fixture.pid()}).tableOf(fixture.pid())["TOTAL"].dirty;
    const Outcome both = runZorbel({"-t", "-w", "-f", "pages", "--pid", std::to_string(fixture.pid())});
    ASSERT_THAT(both.output, HasSubstr("Shared with e2e-tests"));
    EXPECT_NEAR(static_cast<double>(both.summary()["TOTAL"].dirty), static_cast<double>(alone), 2.0);
}

TEST(SharedPagesTest, EqualStatesGiveEqualBytes) {
    const Region memory(50);
    memory.touch(0, 50);
    const Fixture first, second({[&] { memory.touch(0, 10); }});
    Words arguments = {"-v", "-w"};
    for (const Fixture* fixture : {&first, &second}) {
        arguments.push_back("--pid");
        arguments.push_back(std::to_string(fixture->pid()));
    }
    const std::string report = runZorbel(arguments).output;
    for (int i = 0; i < 5; ++i) ASSERT_EQ(runZorbel(arguments).output, report);
}

}  // namespace
}  // namespace zorbel::e2e
