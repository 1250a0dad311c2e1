// Selection, permissions and names of processes, processes that end during the run or in part, and
// interrupted runs.

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <thread>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"

namespace zorbel::e2e {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// A copy of a program that everybody may run. Removed at the end.
struct Copy {
    Copy(const std::string& program, const std::string& name) : path("/tmp/" + name) {
        std::filesystem::copy_file(program, path, std::filesystem::copy_options::overwrite_existing);
    }
    Copy(const Copy&) = delete;
    ~Copy() { std::filesystem::remove(path); }

    const std::string path;
};

TEST(ProcessTest, SelectsFamiliesAndExceptions) {
    const Fixture parent({[] { static const Fixture child({[] { static const Fixture grandchild; }}); }});
    const std::string pid = std::to_string(parent.pid());
    const std::string family = runZorbel({"-t", "--pid", pid}).output;
    EXPECT_THAT(family, HasSubstr("e2e-tests" + headerOf(parent.pid())));
    EXPECT_THAT(family, testing::ContainsRegex("(: 64-bit(.|\n)*){3}Summary Zorbel: "));
    const Fixture other;
    const Outcome rest = runZorbel({pid, std::to_string(other.pid()), "-x", pid, "-x", "nosuch"});
    EXPECT_EQ(rest.error, "");
    EXPECT_THAT(rest.output, AllOf(Not(HasSubstr(headerOf(parent.pid()))), HasSubstr(headerOf(other.pid())),
                                   Not(HasSubstr("Summary Zorbel"))));
}

TEST(ProcessTest, EscapesHostileNames) {
    const Copy shell("/bin/sh", "evil\x1B[31m\n\xFF\xC2\x9B (deleted)");
    const std::string printed = "evil\\x1B[31m\\x0A\\xFF\\xC2\\x9B";
    const Fixture fixture({[&] { execl(shell.path.c_str(), "sh", "-c", "kill -STOP $$", nullptr); }});
    EXPECT_THAT(runZorbel({printed}).output,  // The name in the report selects it.
                AllOf(HasSubstr("\n" + printed + headerOf(fixture.pid())), Not(HasSubstr("\x1B"))));
}

TEST(ProcessTest, MeasuresOwnProcessesWithoutRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    const Copy copy(kZorbel, "zorbel-" + std::to_string(getpid()));
    const Words zorbel = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy.path};
    const Region memory(9, MAP_SHARED, newFile(9));
    const Fixture own({[&] {
        memory.touch(0, 9);
        check(setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0, "setresuid");
        prctl(PR_SET_DUMPABLE, 1);  // This and the next setting are lost with root.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }});
    const Fixture others;
    const Outcome mixed = runZorbel(wide({others.pid(), own.pid()}), zorbel);
    EXPECT_EQ(mixed.status, 0);
    EXPECT_EQ(mixed.error, "task_for_pid: Permission denied\nUnable to analyze process with pid " +
                               std::to_string(others.pid()) + " (try as root?)\n");
    EXPECT_EQ(mixed.tableOf(own.pid())["memfd"], (Row{.dirty = 9, .regions = 1}));
    EXPECT_EQ(runZorbel({"-a"}, zorbel).error, "Must run as root.\n");
    EXPECT_THAT(runZorbel({"-a"}).output,
                AllOf(HasSubstr(headerOf(own.pid())), Not(HasSubstr("kthreadd"))));  // No kernel threads.
}

TEST(ProcessTest, ContinuesWithoutProtectedProcesses) {
    const Fixture fixture;
    std::string errors;
    if (!std::ifstream("/proc/1/maps").is_open())
        errors = "task_for_pid: Permission denied\nUnable to analyze process with pid 1 (try as root?)\n";
    const Outcome outcome = measure({1, fixture.pid()});
    EXPECT_EQ(outcome.error, errors);
    EXPECT_THAT(outcome.output, HasSubstr(headerOf(fixture.pid())));
}

TEST(ProcessTest, MeasuresMoreProcessesThanOpenFiles) {
    const Region memory(2, MAP_SHARED, newFile(2));
    std::list<Fixture> fixtures;
    std::vector<pid_t> pids;
    for (int i = 0; i < 120; ++i)
        pids.push_back(fixtures.emplace_back(std::vector<Fixture::Step>{[&] { memory.touch(0, 2); }}).pid());
    const Outcome outcome = runZorbel(wide(pids), {"prlimit", "--nofile=100", kZorbel});
    EXPECT_EQ(outcome.error, "");
    const Row row = outcome.tableAfter({"Shared with 120 processes:\n"})["memfd"];
    EXPECT_EQ(row, (Row{.dirty = 2, .regions = 120}));
}

TEST(ProcessTest, MeasuresMoreSharedFilesThanOpenFiles) {
    const std::array<Fixture, 8> readLater;  // Higher pids are read first.
    const Fixture mapsMany({[] {
        for (int i = 0; i < 120; ++i) {
            void* page = mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, newFile(1), 0);
            check(page != MAP_FAILED, "mmap");
            static_cast<volatile char*>(page)[0] = 1;
        }
    }});
    std::vector<pid_t> pids = {mapsMany.pid()};
    for (const Fixture& fixture : readLater) pids.push_back(fixture.pid());
    const Outcome outcome = runZorbel(wide(pids), {"prlimit", "--nofile=100", kZorbel});
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.tableOf(mapsMany.pid())["memfd"], (Row{.dirty = 120, .regions = 120}));
    for (const Fixture& fixture : readLater) EXPECT_GT(outcome.tableOf(fixture.pid())["stack"].regions, 0);
}

TEST(ProcessTest, CountsFilesInTheSameWayWithFewDescriptors) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    std::list<Region> files;
    for (int i = 0; i < 150; ++i) files.emplace_back(2, MAP_SHARED, newFile(2)).touch(0, 2);
    const Fixture first;  // They map the files, and have touched no page.
    const Fixture second({[&] { files.front().read(0, 1); }});
    const std::vector<pid_t> pids = {first.pid(), second.pid()};
    const Outcome outcome = measure(pids);
    EXPECT_EQ(outcome.summary()["memfd"], (Row{.dirty = 300, .regions = 300}));
    for (const char* limit : {"--nofile=100", "--nofile=60"})
        EXPECT_EQ(runZorbel(wide(pids), {"prlimit", limit, kZorbel}).output, outcome.output) << limit;
}

/// A run of zorbel, stopped while it reads the many regions of the first process. On a busy
/// machine the stop may come too late, so it is retried.
std::unique_ptr<ProgramRun> stoppedRun(const std::vector<pid_t>& pids, bool isOnTerminal = false) {
    Words command = wide(pids);
    command.insert(command.begin(), kZorbel);
    for (int attempt = 0; attempt < 50; ++attempt) {
        auto run = std::make_unique<ProgramRun>(command, isOnTerminal);
        if (run->stopWhileReading(pids.front())) return run;
    }
    throw std::runtime_error("zorbel can't be stopped in time");
}

TEST(ProcessTest, ProcessExitsDuringRead) {
    const Region memory(3, MAP_SHARED, newFile(3));
    const Fixture witness({[&] { memory.touch(0, 3); }});
    for (const bool isReaped : {false, true}) {
        Fixture victim({makeManyRegions});
        const std::string display = "e2e-tests" + numberOf(victim.pid());
        const auto run = stoppedRun({victim.pid(), witness.pid()});
        victim.kill(isReaped);
        const Outcome outcome = run->finish();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.error,
                  "mach_vm_region_recurse: Address space no longer exists\nbailing out for process " +
                      display + "; data may be incomplete!\n");
        const std::string warning = ": 64-bit\nWarnings were encountered while examining the process.\n\t" +
                                    display + ": Address space no longer exists ";
        EXPECT_THAT(outcome.output, HasSubstr(display + warning +
                                              (isReaped ? "(process exited)" : "(zombie)") + "\n\tZorbel: "));
        EXPECT_EQ(outcome.tableOf(witness.pid())["memfd"].dirty, 3);
    }
}

TEST(ProcessTest, ProcessExecsDuringRead) {
    const Fixture fixture({makeManyRegions, [] { execl("/bin/sh", "sh", "-c", "kill -STOP $$", nullptr); }});
    const auto run = stoppedRun({fixture.pid()});
    fixture.next();
    const Outcome outcome = run->finish();
    EXPECT_EQ(outcome.error, "");
    const Row total = outcome.tableOf(fixture.pid())["TOTAL"];
    EXPECT_GT(total.dirty, 0);
    EXPECT_LT(total.regions, 1000);  // None of the old image.
}

TEST(ProcessTest, ZombieGetsAWarning) {
    Fixture shade({[] { prctl(PR_SET_NAME, "a) R 0\x1B[2J"); }});
    shade.kill(false);
    EXPECT_THAT(measure({shade.pid()}).output, HasSubstr("\n\ta) R 0\\x1B[2J" + numberOf(shade.pid()) +
                                                         ": Address space no longer exists (zombie)\n"));
}

TEST(ProcessTest, MainThreadExitsFirst) {
    const Fixture relative;  // Has none of what follows.
    // Shared memory directly behind much private memory.
    constexpr int kAccess = PROT_READ | PROT_WRITE;
    void* const area = mmap(nullptr, 520 * kPageSize, kAccess, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void* const memory = static_cast<char*>(area) + 512 * kPageSize;
    check(mmap(memory, 8 * kPageSize, kAccess, MAP_SHARED | MAP_FIXED, newFile(8), 0) == memory, "mmap");
    alignas(4096) static volatile char zeroed[64 * 4096];
    const Fixture fixture({[&] {
        std::memset(area, 1, 520 * kPageSize);
        for (volatile char& byte : zeroed) byte = 1;
        std::thread([mainThread = pthread_self()] {
            pthread_join(mainThread, nullptr);
            kill(getpid(), SIGSTOP);
        }).detach();
        syscall(SYS_exit, 0);
    }});
    const Outcome outcome = measure({fixture.pid(), relative.pid()});
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.summary()["memfd"].dirty, 8);
    EXPECT_GE(outcome.tableOf(fixture.pid())["__DATA " PROGRAM_DIR "/e2e-tests"].dirty,
              static_cast<std::int64_t>(sizeof zeroed / kPageSize));
    EXPECT_THAT(outcome.output, HasSubstr("\n\tphys_zorbel: "));
    // The id of the other thread is not a pid.
    const std::string pid = std::to_string(fixture.pid());
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + pid + "/task")) {
        const std::string number = thread.path().filename();
        if (number == pid) continue;
        EXPECT_THAT(runZorbel({"--pid", number}).error,
                    testing::StartsWith("Unable to analyze process with pid " + number + " "));
    }
}

TEST(ProcessTest, InterruptCutsTheRunShort) {
    const Fixture fixture({makeManyRegions});
    for (const bool isOnTerminal : {false, true}) {
        const auto run = stoppedRun({fixture.pid()}, isOnTerminal);
        run->interrupt();
        const Outcome outcome = run->finish();
        EXPECT_EQ(WIFSIGNALED(outcome.status) ? WTERMSIG(outcome.status) : 0, isOnTerminal ? SIGINT : 0);
        EXPECT_EQ(outcome.error, isOnTerminal ? "" : "Exiting early due to SIGINT\n");
        EXPECT_EQ(outcome.output.find("=====") == std::string::npos, isOnTerminal);
        EXPECT_EQ(outcome.output.find("exited early due to SIGINT") == std::string::npos, isOnTerminal);
    }
}

}  // namespace
}  // namespace zorbel::e2e
