// Processes that have died: passed as a descriptor, and by the kernel to its handler.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <latch>
#include <memory>
#include <regex>
#include <thread>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/SystemSetting.h"
#include "support/TestData.h"

namespace zorbel::e2e {
namespace {

using test::contentsOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kHandler = PROGRAM_DIR "/zorbel-corpse-handler";

/// Core dump settings of the kernel. They are restored with the end of the object, and also if this program
/// and its children are killed: by a process outside of its session.
class CoreSettings {
  public:
    CoreSettings(const std::string& pattern, const std::string& pipeLimit) {
        const std::string oldPattern = contentsOf(kPattern);
        const std::string oldLimit = contentsOf(kPipeLimit);
        if (!writeFile(kPattern, oldPattern) || !writeFile(kPipeLimit, oldLimit)) return;
        int ends[2];
        check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
        const pid_t child = fork();
        if (child == 0) {
            if (setsid() < 0 || fork() != 0) _exit(0);
            close(ends[0]);
            char byte = 0;
            while (read(ends[1], &byte, 1) < 0) {
            }  // Until the other end writes or closes.
            const bool isRestored = writeFile(kPattern, oldPattern) && writeFile(kPipeLimit, oldLimit);
            _exit(isRestored && write(ends[1], "r", 1) == 1 ? 0 : 1);
        }
        close(ends[1]);
        _guardian = ends[0];
        check(child > 0 && waitpid(child, nullptr, 0) == child, "fork");
        _areSet = writeFile(kPattern, pattern) && writeFile(kPipeLimit, pipeLimit);
    }
    CoreSettings(const CoreSettings&) = delete;
    ~CoreSettings() {
        if (_guardian < 0) return;
        char byte = 0;
        EXPECT_TRUE(write(_guardian, "x", 1) == 1 && read(_guardian, &byte, 1) == 1) << "not restored";
        close(_guardian);
    }
    [[nodiscard]] bool areSet() const { return _areSet; }

  private:
    static constexpr const char* kPattern = "/proc/sys/kernel/core_pattern";
    static constexpr const char* kPipeLimit = "/proc/sys/kernel/core_pipe_limit";

    int _guardian = -1;
    bool _areSet = false;
};

class CorpseTest : public testing::Test {
  protected:
    // The pattern has at most 127 bytes, so the programs have short names.
    CorpseTest() {
        std::filesystem::create_directory(_directory);
        std::filesystem::create_symlink(kHandler, _directory + "/h");
        std::ofstream(_directory + "/then") << "#!/bin/sh\ncat >$1\n";
        std::ofstream(_directory + "/slow") << "#!/bin/sh\nexec sleep 100\n";
        for (const char* script : {"/then", "/slow"}) chmod((_directory + script).c_str(), 0700);
    }
    ~CorpseTest() override { std::filesystem::remove_all(_directory); }

    /// Installs the handler. False if that is not possible.
    bool install(const std::string& options = "", const std::string& then = "") {
        const std::string handler = "|" + _directory + "/h --directory " + _directory + "/r ";
        _settings.reset();
        _settings = std::make_unique<CoreSettings>(handler + options + " %P %e %s %t " + then, "32");
        return _settings->areSet();
    }

    /// The kernel waits for the handler, so the report is complete afterwards.
    static void crash(pid_t pid) {
        kill(pid, SIGSEGV);
        kill(pid, SIGCONT);
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }

    /// Files of reports with that ending.
    std::vector<std::string> reports(const std::string& ending) const {
        std::vector<std::string> paths;
        if (!std::filesystem::exists(_directory + "/r")) return paths;
        for (const auto& file : std::filesystem::directory_iterator(_directory + "/r"))
            if (file.path().string().ends_with(ending)) paths.push_back(file.path());
        return paths;
    }

    const std::string _directory = "/tmp/zc" + std::to_string(getpid());

  private:
    std::unique_ptr<CoreSettings> _settings;
};

/// The first process whose command line starts with the text; 0 if there is none.
pid_t pidOf(const std::string& command) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
        if (contentsOf(entry.path() / "cmdline").starts_with(command))
            return std::stoi(entry.path().filename());
    return 0;
}

/// The categories of the only process of a JSON document, without clean pages: the
/// kernel starts to write the image at the same time, and reads pages of some files for that.
std::string categoriesIn(const std::string& path) {
    const std::string text = contentsOf(path);
    const std::size_t start = text.rfind("\"categories\":");
    if (start == std::string::npos) return "none";
    return std::regex_replace(text.substr(start), std::regex("\"clean\":[0-9]+,"), "");
}

TEST_F(CorpseTest, ReportMatchesTheLiveProcess) {
    const SwapDevice device;
    const Region own(300), swapped(50), shared(40, MAP_SHARED, newFile(40));
    const Fixture fixture({[&] {
        own.touch(0, 200), shared.touch(5, 20), swapped.touch(0, 50);
        if (device.isUsable()) swapped.pageOut();
        static std::latch running(3);
        for (int i = 0; i < 3; ++i)
            std::thread([&] {
                running.count_down();
                pause();
            }).detach();
        running.wait();
    }});
    const Fixture other({[&] { shared.touch(5, 20); }});
    const std::string live = _directory + "/live.json";
    EXPECT_EQ(runZorbel({"-j", live, "--pid", std::to_string(fixture.pid())}).status, 0);
    if (!install()) GTEST_SKIP() << "takes root, and a core pattern that can be set";
    crash(fixture.pid());
    ASSERT_THAT(reports(".json"), SizeIs(1));
    EXPECT_EQ(categoriesIn(reports(".json")[0]), categoriesIn(live));
    EXPECT_THAT(categoriesIn(live),
                HasSubstr("\"memfd\":{\"dirty\":" + std::to_string(20 * kPageSize) + ","));
    if (device.isUsable()) {
        EXPECT_THAT(categoriesIn(live), HasSubstr("\"swapped\":" + std::to_string(50 * kPageSize) + ","));
    }
    ASSERT_THAT(reports(".txt"), SizeIs(1));
    const std::string text = contentsOf(reports(".txt")[0]);
    EXPECT_THAT(text,
                testing::StartsWith("e2e-tests" + numberOf(fixture.pid()) +
                                    ", thread e2e-tests, was ended by signal 11 (Segmentation fault) at "));
    EXPECT_THAT(text, HasSubstr("\ne2e-tests" + numberOf(fixture.pid()) + " (corpse): 64-bit\tZorbel: "));
    EXPECT_THAT(text, testing::Not(HasSubstr("rror")));
    struct stat status {};
    EXPECT_EQ(stat(reports(".json")[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(CorpseTest, ReportsCrashInOtherNamespaces) {
    if (!install()) GTEST_SKIP() << "takes root, and a core pattern that can be set";
    const std::string program = _directory + "/doomed x";
    std::filesystem::copy_file("/bin/sh", program);
    runZorbel({"--pid", "--mount", "--fork", "sh", "-c",
               "mount -t tmpfs none /mnt; \"$0\" -c 'rm \"$0\"; kill -SEGV $$' \"$0\"; true", program},
              {"unshare"});
    ASSERT_THAT(reports("-doomed_x.txt"), SizeIs(1));
    const std::string text = contentsOf(reports("-doomed_x.txt")[0]);
    EXPECT_THAT(text, testing::StartsWith("doomed x ["));
    EXPECT_THAT(text, HasSubstr("    __DATA " + program + " (deleted)\n"));
}

TEST_F(CorpseTest, HandlesTwentyCrashesAtOnceAndPrunes) {
    if (!install("--keep 15")) GTEST_SKIP() << "takes root, and a core pattern that can be set";
    std::vector<std::unique_ptr<Fixture>> fixtures;
    for (int i = 0; i < 20; ++i) fixtures.push_back(std::make_unique<Fixture>());
    std::vector<std::thread> crashes;
    for (const auto& fixture : fixtures) crashes.emplace_back(crash, fixture->pid());
    for (std::thread& thread : crashes) thread.join();
    EXPECT_THAT(reports(".txt"), SizeIs(15));
    EXPECT_THAT(reports(".json"), SizeIs(15));
    // The newest report always stays.
    ASSERT_TRUE(install("--keep 0 --keepMiB 1"));
    const Fixture last;
    crash(last.pid());
    ASSERT_THAT(reports(".json"), SizeIs(1));
    EXPECT_THAT(reports(".json")[0], HasSubstr("-" + std::to_string(last.pid()) + "-"));
}

TEST_F(CorpseTest, ReportHasTheProgramNameAfterTheFirstThreadExited) {
    if (!install()) GTEST_SKIP() << "takes root, and a core pattern that can be set";
    const Region memory(30, MAP_SHARED, newFile(30));
    const Fixture fixture({[&] {
        memory.touch(0, 30);
        std::thread([mainThread = pthread_self()] {
            prctl(PR_SET_NAME, "a b");
            pthread_join(mainThread, nullptr);
            kill(getpid(), SIGSTOP);
            pause();
        }).detach();
        syscall(SYS_exit, 0);
    }});
    crash(fixture.pid());
    ASSERT_THAT(reports("-e2e-tests.json"), SizeIs(1));
    EXPECT_THAT(categoriesIn(reports(".json")[0]),
                HasSubstr("\"memfd\":{\"dirty\":" + std::to_string(30 * kPageSize) + ","));
}

TEST_F(CorpseTest, NextHandlerGetsTheCoreImage) {
    const std::string image = _directory + "/image";
    if (!install("", "--then " + _directory + "/then " + image))
        GTEST_SKIP() << "takes root, and a core pattern that can be set";
    const Region memory(300);
    const Fixture fixture({[&] { memory.touch(0, 300); }});
    crash(fixture.pid());
    EXPECT_THAT(reports(".txt"), SizeIs(1));
    EXPECT_THAT(contentsOf(image).substr(0, 4),
                "\x7F"
                "ELF");
    EXPECT_GT(std::filesystem::file_size(image), 300 * kPageSize);
}

TEST_F(CorpseTest, FailuresDoNotKeepTheProcess) {
    const std::string full = _directory + "/full";
    std::filesystem::create_directory(full);
    const Words broken = {"--zorbel /none",
                          "--timeout 1 --zorbel " + _directory + "/slow",
                          "--directory /proc/none",
                          "--keep x",
                          "--keepMiB 0",
                          "--directory " + full};
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& options : broken) {
        if (!install(options)) GTEST_SKIP() << "takes root, and a core pattern that can be set";
        const bool isFull =
            options.ends_with(full) && mount("none", full.c_str(), "tmpfs", 0, "size=4k") == 0;
        const Fixture fixture;
        crash(fixture.pid());
        if (!isFull) continue;
        EXPECT_TRUE(std::filesystem::is_empty(full));  // No partial report is left.
        umount(full.c_str());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    for (const char* ending : {".txt", ".json", ".part"}) EXPECT_THAT(reports(ending), IsEmpty());
    // If the handler is killed, its children end too.
    ASSERT_TRUE(install("--zorbel " + _directory + "/slow"));
    const Fixture fixture;
    std::thread crashing(crash, fixture.pid());
    pid_t handler = 0;
    while (handler == 0) handler = pidOf(_directory + "/h");
    EXPECT_EQ(kill(handler, SIGKILL), 0);
    crashing.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    const auto handle = [&](Words arguments) { return runZorbel(arguments, {kHandler}); };
    EXPECT_NE(handle({}).status, 0);
    EXPECT_EQ(handle({}).error, "zorbel-corpse-handler: wrong arguments; see --help\n");
    EXPECT_THAT(handle({"--directory", _directory + "/r", "5000001", "--then", "11", "0"}).error,
                "zorbel-corpse-handler: process 5000001: No such file or directory\n"
                "zorbel-corpse-handler: no report on process 5000001\n");
    // A process with that pid that is not being dumped.
    EXPECT_THAT(handle({"--directory", _directory + "/r", std::to_string(getpid()), "x", "11", "0"}).error,
                HasSubstr(": No such process\n"));
}

TEST_F(CorpseTest, AcceptsOnlyAProcessDescriptor) {
    const Region memory(7, MAP_SHARED, newFile(7));
    Fixture fixture({[&] { memory.touch(0, 7); }});
    const std::string process = "/proc/" + std::to_string(fixture.pid());
    /// Runs zorbel with variables and a descriptor 3.
    const auto handOver = [&](const std::string& variables, const std::string& descriptor) {
        return runZorbel({"-c",
                          variables +
                              " exec \"$0\" -w -f pages --corpsePid 42 --corpseName 'a\x1B' "
                              "--corpseProcFlags 4 3" +
                              descriptor,
                          kZorbel},
                         {"sh"});
    };
    const std::string right = "LISTEN_FDS=1 LISTEN_PID=$$";
    const Outcome outcome = handOver(right, "<" + process);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.tableAfter({"\na\\x1B [42] (corpse): 64-bit\t"}).at("memfd"),
              (Row{.dirty = 7, .regions = 1}));
    std::vector<std::pair<std::string, std::string>> rows = {
        {"", "<" + process},
        {"LISTEN_FDS=0 LISTEN_PID=$$", "<" + process},
        {"LISTEN_FDS=1 LISTEN_PID=1", "<" + process},
        {"LISTEN_FDS=1x LISTEN_PID=$$", "<" + process},
        {right, "<&-"},
        {right, "</dev/null"},
        {right, "</tmp"},
        {right, "</proc"},
        {right, "<" + process + "/task/" + std::to_string(fixture.pid())},
        {right, "<" + process + "/stat"},
        {right + "; sleep 60 & kill -9 $!; exec 3</proc/$!; wait $! 2>/dev/null; export LISTEN_FDS=1 "
                 "LISTEN_PID=$$;",
         "<&3"},
    };
    fixture.kill(false);
    rows.emplace_back(right, "<" + process);  // A zombie has no memory.
    for (const auto& [variables, descriptor] : rows) {
        const Outcome refused = handOver(variables, descriptor);
        EXPECT_NE(refused.status, 0) << variables << descriptor;
        EXPECT_EQ(refused.error, "Failed to retrieve corpse port\n") << variables << descriptor;
        EXPECT_THAT(refused.output, testing::StartsWith("Usage: zorbel --corpsePid pid "));
    }
}

}  // namespace
}  // namespace zorbel::e2e
