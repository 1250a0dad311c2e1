// Memory that several processes have in common counts once, page by page.

#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <thread>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/Merging.h"
#include "fixtures/SystemSetting.h"

namespace zorbel::e2e {
namespace {

using namespace testing;

/// Private copies of pages of a file on disk, which nothing else has this name for.
constexpr const char* kCopied = "mapped file";

/// Through which processes tell the test their numbers.
class PidPipe {
  public:
    PidPipe() { check(pipe(_ends.data()) == 0, "pipe"); }
    PidPipe(const PidPipe&) = delete;
    ~PidPipe() {
        for (const int end : _ends) close(end);
    }
    void send(pid_t pid) const { check(write(_ends[1], &pid, sizeof pid) == sizeof pid, "write"); }
    [[nodiscard]] pid_t receive() const {
        pid_t pid = 0;
        check(read(_ends[0], &pid, sizeof pid) == sizeof pid, "read");
        return pid;
    }

  private:
    std::array<int, 2> _ends{};
};

/// Ends the first thread of this process. Another one stops the process once that is done, and goes on.
void endFirstThread() {
    std::thread([first = pthread_self()] {
        pthread_join(first, nullptr);
        for (;;) kill(getpid(), SIGSTOP);
    }).detach();
    syscall(SYS_exit, 0);
}

/// Starts a process that uses the address space of this one, and returns its number. It is a child of this
/// process, or with CLONE_PARENT of the test.
pid_t shareAddressSpace(int flags = 0) {
    static std::array<char, 1 << 16> stack;
    const auto sleep = [](void*) -> int {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) pause();
    };
    const pid_t pid = clone(sleep, stack.data() + stack.size(), CLONE_VM | SIGCHLD | flags, nullptr);
    check(pid > 0, "clone");
    return pid;
}

/// Fails all comparisons of processes that this thread asks for, and the programs that it starts from now on.
void forbidComparing() {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_kcmp, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(code), code};
    check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
              prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0,
          "seccomp");
}

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
    const PidPipe pipe;
    const Fixture first({[&] {
        memory.touch(0, 10);
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            memory.touch(10, 20);
            pipe.send(getpid());
            for (;;) pause();
        }
    }});
    const Fixture other({[&] { memory.touch(0, 10), memory.touch(20, 10); }});
    const pid_t second = pipe.receive();
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
    const Fixture fixture({[] { shareAddressSpace(); }});
    const std::int64_t alone = measure({fixture.pid()}).tableOf(fixture.pid())["TOTAL"].dirty;
    const Outcome both = runZorbel({"-t", "-w", "-f", "pages", "--pid", std::to_string(fixture.pid())});
    ASSERT_THAT(both.output, HasSubstr("Shared with e2e-tests"));
    EXPECT_NEAR(static_cast<double>(both.summary()["TOTAL"].dirty), static_cast<double>(alone), 2.0);
}

TEST(SharedPagesTest, OneAddressSpaceCountsOnceWhereProcessesCannotBeCompared) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const Region memory(100, MAP_PRIVATE, newFile(100, "/var/tmp"));
    const Fixture fixture({[&] { memory.touch(0, 100), shareAddressSpace(); }});
    Outcome both;
    std::thread([&] {
        forbidComparing();
        both = runZorbel({"-t", "-w", "-f", "pages", "--pid", std::to_string(fixture.pid())});
    }).join();
    ASSERT_THAT(both.output, HasSubstr("Shared with e2e-tests"));
    EXPECT_EQ(both.summary()[kCopied].dirty, 100);
}

TEST(SharedPagesTest, ProcessesWithoutTheirFirstThreadAreToldApart) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const Region memory(200, MAP_PRIVATE, newFile(200, "/var/tmp"));
    memory.touch(0, 30);
    Fixture zombie;
    zombie.kill(false);
    const Fixture first({[&] { memory.touch(50, 40), endFirstThread(); }});
    const Fixture second({[&] { memory.touch(20, 90), endFirstThread(); }});
    const Fixture whole({[&] { memory.touch(0, 10); }});
    const Outcome all = measure({zombie.pid(), first.pid(), second.pid(), whole.pid()});
    // What all have from before the fork: 10 to 19, all three; 0 to 9, the first two; 20 to 29, the first and
    // the last.
    EXPECT_EQ(all.summary()[kCopied].dirty, 30 + 40 + 90 + 10);
    EXPECT_EQ(all.tableOf(first.pid())[kCopied].dirty, 40);
    EXPECT_EQ(all.tableOf(second.pid())[kCopied].dirty, 90);
    EXPECT_EQ(all.tableOf(whole.pid())[kCopied].dirty, 10);
    const Outcome two = measure({zombie.pid(), second.pid()});
    EXPECT_EQ(two.tableOf(second.pid())[kCopied].dirty, 20 + 90);
    EXPECT_EQ(two.summary()[kCopied].dirty, 20 + 90);
}

TEST(SharedPagesTest, OneAddressSpaceWithoutTheFirstThreadCountsOnce) {
    const Region memory(100, MAP_PRIVATE, newFile(100, "/var/tmp"));
    const PidPipe pipe;
    const Fixture fixture({[&] {
        memory.touch(0, 100);
        pipe.send(shareAddressSpace(CLONE_PARENT));
        endFirstThread();
    }});
    const pid_t sibling = pipe.receive();
    const Outcome both = measure({fixture.pid(), sibling});
    kill(sibling, SIGKILL);
    waitpid(sibling, nullptr, 0);
    EXPECT_EQ(both.summary()[kCopied].dirty, 100);
}

const std::string kKsm = "/sys/kernel/mm/ksm/";

/// At the end, KSM forgets what it has merged since. Otherwise it would keep that until it works again.
class KsmAsBefore {
  public:
    KsmAsBefore() = default;
    KsmAsBefore(const KsmAsBefore&) = delete;
    ~KsmAsBefore() {
        constexpr int kUnmerge = 2;
        if (_pages == 0) SystemSetting(kKsm + "run", kUnmerge);
    }

  private:
    int _pages = readNumber(kKsm + "pages_shared");
};

/// Lets KSM work until it has merged so many pages of each process. False if it does not.
bool mergePages(const std::vector<pid_t>& pids, std::size_t pages) {
    const SystemSetting speed(kKsm + "pages_to_scan", 5000);
    const SystemSetting sleep(kKsm + "sleep_millisecs", 1);
    const SystemSetting run(kKsm + "run", 1);
    const auto isMerged = [&](pid_t pid) {
        return readNumber("/proc/" + std::to_string(pid) + "/ksm_merging_pages") == static_cast<int>(pages);
    };
    for (int i = 0; i < 500; ++i) {
        if (std::ranges::all_of(pids, isMerged)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST(SharedPagesTest, MergedPagesCountOnce) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const KsmAsBefore atTheEnd;
    const auto run = [](const char* what) {
        return Fixture::Step([what] { execl(PROGRAM_DIR "/merging-program", "merging", what, nullptr); });
    };
    const Fixture first({run("")});
    const Fixture second({run("rewrite")});
    const Fixture parent({run("fork")});
    if (!mergePages({first.pid(), second.pid(), parent.pid()}, kEqualPages + kSamePages))
        GTEST_SKIP() << "takes KSM";
    const auto counted = [](const std::vector<pid_t>& pids) {
        const Outcome outcome = measure(pids);
        const Table table = pids.size() > 1 ? outcome.summary() : outcome.tableOf(pids[0]);
        const auto row = table.find(kCopied);
        return row == table.end() ? 0 : static_cast<std::size_t>(row->second.dirty);
    };
    constexpr std::size_t kMerged = kEqualPages + 1;
    EXPECT_EQ(counted({first.pid()}), kMerged + kOwnPages);
    EXPECT_EQ(counted({first.pid(), second.pid(), parent.pid()}), kMerged + 3 * kOwnPages);
    second.next();
    EXPECT_EQ(counted({first.pid(), second.pid()}), kMerged + 2 * kOwnPages + kRewrittenPages);
    // The kernel does not count merged pages for a child that has them from its parent.
    parent.next();
    const std::string thread = std::to_string(parent.pid());
    const pid_t child = readNumber("/proc/" + thread + "/task/" + thread + "/children");
    ASSERT_GT(child, 0);
    EXPECT_EQ(counted({child}), kMerged + kOwnPages);
    EXPECT_EQ(counted({first.pid(), child}), kMerged + 2 * kOwnPages);
    EXPECT_EQ(counted({first.pid(), parent.pid(), child}), kMerged + 2 * kOwnPages);
}

/// Some read back pages that were in swap before they were forked, and some write them.
void expectSwappedPagesToCountOnce() {
    const Region memory(120, MAP_PRIVATE, newFile(120, "/var/tmp"));
    memory.touch(0, 120);
    memory.pageOut();
    const Fixture first;
    const Fixture readsBack({[&] { memory.read(0, 30); }});
    const Fixture writes({[&] { memory.touch(20, 20); }});
    const Fixture writesOut({[&] { memory.touch(30, 20), memory.pageOut(); }});
    const Outcome all = measure({first.pid(), readsBack.pid(), writes.pid(), writesOut.pid()});
    EXPECT_EQ(all.summary()[kCopied].dirty, 120 + 20 + 20);
    EXPECT_EQ(all.tableOf(writes.pid())[kCopied].dirty, 20);
    EXPECT_EQ(all.tableOf(writesOut.pid())[kCopied].dirty, 20);
    EXPECT_EQ(all.tableOf(writesOut.pid())[kCopied].swapped, 20);
}

TEST(SharedPagesTest, SwappedPagesCountOnce) {
    const SwapDevice device;
    if (!device.isUsable()) GTEST_SKIP() << "takes root and an unused /dev/zram0";
    expectSwappedPagesToCountOnce();
}

TEST(SharedPagesTest, SwappedPagesOnDiskCountOnce) {
    const SwapFile area;
    if (!area.isUsable()) GTEST_SKIP() << "takes root and a file in /var/tmp that can be swap";
    expectSwappedPagesToCountOnce();
}

TEST(SharedPagesTest, PagesReadBackBesideTheSlotsOfRelatives) {
    const SwapFile area;
    if (!area.isUsable()) GTEST_SKIP() << "takes root and a file in /var/tmp that can be swap";
    const Region memory(60, MAP_PRIVATE, newFile(60, "/var/tmp"));
    memory.touch(0, 60);
    const auto writeOut = [&] { memory.touch(0, 40), memory.pageOut(); };
    {
        // Both have written the pages: nobody else has the slots that the second one has read back from.
        const Fixture first({writeOut});
        const Fixture second({[&] { writeOut(), memory.read(0, 40); }});
        const Outcome both = measure({first.pid(), second.pid()});
        EXPECT_EQ(both.summary()[kCopied].dirty, 40 + 40 + 20);
        EXPECT_EQ(both.tableOf(first.pid())[kCopied], (Row{.dirty = 40, .swapped = 40, .regions = 1}));
        EXPECT_EQ(both.tableOf(second.pid())[kCopied], (Row{.dirty = 40, .regions = 1}));
    }
    memory.pageOut();
    const Fixture first;
    const Fixture second;
    const Fixture writesOut({writeOut});
    const Fixture readsBack({[&] { memory.read(0, 60); }});
    const std::vector<pid_t> all = {first.pid(), second.pid(), writesOut.pid(), readsBack.pid()};
    const Outcome outcome = measure(all);
    EXPECT_EQ(outcome.summary()[kCopied].dirty, 60 + 40);
    EXPECT_EQ(outcome.tableOf(writesOut.pid())[kCopied].dirty, 40);
    EXPECT_EQ(outcome.tableOf(readsBack.pid())[kCopied].dirty, 0);
    EXPECT_EQ(measure({first.pid(), writesOut.pid(), readsBack.pid()}).summary()[kCopied].dirty, 60 + 40);
    // With one worker and with several, in any order.
    const Words arguments = wide(all);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(runZorbel(arguments).output, outcome.output);
        EXPECT_EQ(runZorbel(arguments, {"taskset", "1", kZorbel}).output, outcome.output);
    }
}

TEST(SharedPagesTest, CopiesReadBackFromSwapAreNoPagesOfTheFile) {
    const SwapFile area;
    if (!area.isUsable()) GTEST_SKIP() << "takes root and a file in /var/tmp that can be swap";
    // smaps calls those that were only read "Private_Clean", like pages of the file.
    const Region memory(60, MAP_PRIVATE, newFile(60, "/var/tmp"));
    const PidPipe pipe;
    const Fixture parent({[&] { memory.touch(0, 40), memory.pageOut(), memory.read(0, 10); },
                          [&] {
                              if (fork() != 0) return;
                              prctl(PR_SET_PDEATHSIG, SIGKILL);
                              memory.read(5, 15);
                              pipe.send(getpid());
                              for (;;) pause();
                          }});
    EXPECT_EQ(measure({parent.pid()}).tableOf(parent.pid())[kCopied],
              (Row{.dirty = 40, .swapped = 30, .regions = 1}));
    parent.next();
    const pid_t child = pipe.receive();
    EXPECT_EQ(measure({child}).tableOf(child)[kCopied], (Row{.dirty = 40, .swapped = 20, .regions = 1}));
    const Row both = measure({parent.pid(), child}).summary()[kCopied];
    EXPECT_EQ(both.dirty, 40);
    EXPECT_EQ(both.clean, 0);
}

TEST(SharedPagesTest, PrivateMappingsDoNotCountWhatTheFileIsYetToGet) {
    const std::vector<char> content(50 * kPageSize, 'z');
    const int file = newFile(50, "/var/tmp");
    ASSERT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    const auto mapAndRead = [&](int protection) {
        auto* start =
            static_cast<volatile char*>(mmap(nullptr, content.size(), protection, MAP_PRIVATE, file, 0));
        check(start != MAP_FAILED, "mmap");
        for (std::size_t i = 0; i < content.size(); i += kPageSize) check(start[i] == 'z', "read");
    };
    const Fixture first({[&] { mapAndRead(PROT_READ); }});
    const Fixture second({[&] { mapAndRead(PROT_READ | PROT_WRITE); }});
    close(file);
    for (const Fixture* fixture : {&first, &second})
        EXPECT_EQ(measure({fixture->pid()}).tableOf(fixture->pid())[kCopied],
                  (Row{.clean = 50, .regions = 1}));
    EXPECT_EQ(measure({first.pid(), second.pid()}).summary()[kCopied], (Row{.clean = 50, .regions = 2}));
}

TEST(SharedPagesTest, CopiesOfPagesOfMemoryFilesCountBesideTheFile) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    constexpr const char* kFile = "POSIX shared memory";
    const Region memory(60, MAP_PRIVATE, newFile(60, "/dev/shm"));
    memory.read(0, 60);
    memory.touch(0, 6);  // Copies that all of the following have.
    const Fixture first;
    const Fixture second({[&] { memory.touch(4, 10); }});
    const Fixture third({[&] { memory.touch(20, 16); }});
    const Outcome all = measure({first.pid(), second.pid(), third.pid()});
    EXPECT_EQ(all.summary()[kFile], (Row{.dirty = 60 + 6 + 10 + 16, .regions = 3}));
    EXPECT_EQ(all.tableOf(first.pid())[kFile].dirty, 0);
    EXPECT_EQ(all.tableOf(second.pid())[kFile].dirty, 10);
    EXPECT_EQ(all.tableOf(third.pid())[kFile].dirty, 16);
    EXPECT_EQ(measure({second.pid()}).tableOf(second.pid())[kFile].dirty, 60 + 4 + 10);
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
