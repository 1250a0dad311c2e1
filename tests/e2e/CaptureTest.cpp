// Saved processes, and reports on them.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"

namespace zorbel::e2e {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

/// A directory for graphs, and the programs that write and read them.
class CaptureTest : public testing::Test {
  protected:
    CaptureTest() { std::filesystem::create_directory(directory); }
    ~CaptureTest() override { std::filesystem::remove_all(directory); }

    static Outcome capture(Words arguments, const std::vector<pid_t>& pids = {}) {
        for (const pid_t pid : pids) arguments.push_back(std::to_string(pid));
        return runZorbel(arguments, {PROGRAM_DIR "/zorbel-capture"});
    }

    /// A report in pages, without the parts that a graph does not have.
    static std::string tables(Words arguments) {
        arguments.insert(arguments.begin(), {"-w", "-f", "pages"});
        std::string text = runZorbel(arguments).output;
        for (const char* only :
             {" \\(memgraph\\)", "\tKernel memory:\n\t\tKPRVT: .*\n\t\tKSHRD: .*\n", "\nAuxiliary data:\n"})
            text = std::regex_replace(text, std::regex(only), "");
        return text;
    }

    std::size_t filesInDirectory() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
    }

    const std::string directory = testing::TempDir() + "graphs-" + std::to_string(getpid());
    const std::string file = directory + "/one";
};

TEST_F(CaptureTest, GraphsGiveTheSameReportsAsLiveProcesses) {
    const Region shared(40, MAP_SHARED | MAP_ANONYMOUS);
    const Region memory(9, MAP_SHARED, newFile(9));
    const std::vector<Fixture::Step> steps = {[&] {
        shared.touch(0, 30), memory.touch(2, 5), memory.read(0, 1);
        Region(300).touch(0, 200);
    }};
    const Fixture first(steps);
    const Fixture second(steps);
    const Fixture other;
    const std::vector<pid_t> pids = {first.pid(), second.pid(), other.pid()};
    const Outcome saved = capture({"-o", directory}, pids);
    EXPECT_EQ(saved.status, 0) << saved.error;
    Words numbers, graphs;
    for (const pid_t pid : pids) {
        numbers.push_back(std::to_string(pid));
        graphs.push_back(directory + "/e2e-tests-" + numbers.back() + ".memgraph");
        struct stat status {};
        EXPECT_EQ(stat(graphs.back().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600U);
    }
    if (runZorbel({"-c", "import jsonschema"}, {"python3"}).status == 0) {
        Words arguments = {SOURCE_DIR "/docs/memgraph.schema.json"};
        arguments.insert(arguments.end(), graphs.begin(), graphs.end());
        EXPECT_EQ(runZorbel(arguments, {SOURCE_DIR "/tests/validate-json"}).output, "");
    }
    EXPECT_EQ(saved.output, graphs[0] + "\n" + graphs[1] + "\n" + graphs[2] + "\n");
    const std::string together = tables(graphs);
    EXPECT_EQ(together, tables(numbers));
    EXPECT_THAT(together, HasSubstr("shared anonymous memory"));
    // Graphs of different captures share nothing, although the same memory has the same numbers in both.
    for (const std::string& graph : {graphs[0], graphs[1]})
        EXPECT_EQ(capture({"--force", "-o", graph}, {second.pid()}).status, 0);
    const Table apart = runZorbel({"-w", "-f", "pages", graphs[0], graphs[1]}).summary();
    EXPECT_EQ(apart.at("shared anonymous memory").dirty, 60);
    EXPECT_EQ(apart.at("memfd").dirty, 12);
}

TEST_F(CaptureTest, ObjectMappedSeveralTimes) {
    const int descriptor = newFile(100);
    const auto part = [&](std::size_t first, std::size_t pages) {
        void* start = mmap(nullptr, pages * kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor,
                           static_cast<off_t>(first * kPageSize));
        std::memset(start, 1, pages * kPageSize);
    };
    // Two that do not overlap, and two that do.
    const Fixture fixture({[&] { part(0, 10), part(10, 5), part(50, 20), part(60, 20); }});
    EXPECT_EQ(capture({"-o", file}, {fixture.pid()}).status, 0);
    const Table report = runZorbel({"-w", "-f", "pages", file}).tableAfter({"Zorbel: "});
    EXPECT_EQ(report.at("memfd"), (Row{.dirty = 10 + 5 + 30, .regions = 4}));
}

TEST_F(CaptureTest, GraphsOfAFamilyShareThePagesThatItShares) {
    // What all of them have since the fork, until they write to it.
    const Region inherited(60), copied(40, MAP_PRIVATE, newFile(40));
    inherited.touch(0, 50), copied.read(0, 40), copied.touch(0, 12);
    // Files in memory and on disk, of which each maps another part.
    const int memory = newFile(64), disk = newFile(64, "/var/tmp");
    const auto window = [](int descriptor, std::size_t first, std::size_t pages, std::size_t dirty) {
        const int protection = PROT_READ | PROT_WRITE;
        auto* start = static_cast<volatile char*>(mmap(nullptr, pages * kPageSize, protection, MAP_SHARED,
                                                       descriptor, static_cast<off_t>(first * kPageSize)));
        for (std::size_t i = 0; i < pages; ++i) {
            const char byte = start[i * kPageSize];
            if (i < dirty) start[i * kPageSize] = static_cast<char>(byte + 1);
        }
    };
    const Fixture first({[&] { window(memory, 0, 20, 20), window(disk, 0, 20, 5); }});
    const Fixture second({[&] {
        window(memory, 10, 20, 7), window(disk, 10, 20, 10), window(disk, 50, 9, 0);
        inherited.touch(0, 8), copied.touch(10, 5);
    }});
    const Fixture third({[&] {
        window(memory, 40, 20, 9), window(disk, 40, 6, 6), window(disk, 20, 4, 0);
        inherited.touch(30, 30);
    }});
    Words numbers, graphs;
    const std::vector<pid_t> pids = {first.pid(), second.pid(), third.pid()};
    EXPECT_EQ(capture({"-o", directory}, pids).status, 0);
    for (const pid_t pid : pids) {
        numbers.push_back(std::to_string(pid));
        graphs.push_back(directory + "/e2e-tests-" + numbers.back() + ".memgraph");
    }
    // Code is clean, and how much of it each has touched is not as certain.
    const auto withoutCode = [](const std::string& text) {
        return std::regex_replace(text, std::regex("\n.*(__TEXT .*|TOTAL)"), "");
    };
    const std::string together = withoutCode(tables(graphs));
    EXPECT_EQ(together, withoutCode(tables(numbers)));
    EXPECT_THAT(together, HasSubstr("\nShared with "));
    const Table summary = runZorbel({"-w", "-f", "pages", graphs[0], graphs[1], graphs[2]}).summary();
    EXPECT_EQ(summary.at("mapped file").dirty, 5 + 10 + 6);
    if (runZorbel({"-c", "import jsonschema"}, {"python3"}).status == 0) {
        Words arguments = {SOURCE_DIR "/docs/memgraph.schema.json"};
        arguments.insert(arguments.end(), graphs.begin(), graphs.end());
        EXPECT_EQ(runZorbel(arguments, {SOURCE_DIR "/tests/validate-json"}).output, "");
    }
    // One of them alone: the files have what all processes of the capture map of them.
    const Table alone = runZorbel({"-w", "-f", "pages", graphs[0]}).tableAfter({"Zorbel: "});
    EXPECT_EQ(alone.at("mapped file").dirty, 5 + 10 + 6);
    EXPECT_EQ(alone.at("memfd").dirty, 30 + 20 + 40 + 12);
}

TEST_F(CaptureTest, LazilyFreedPagesShowAsClean) {
    const std::string kUntagged = "untagged (\"VM_ALLOCATE\")";
    const Region freed(30);
    stayOnOneProcessor();
    freed.touch(0, 30);
    const Fixture first, second({[&] { freed.freeLazily(); }});
    const Words pids = {std::to_string(first.pid()), std::to_string(second.pid())};
    EXPECT_EQ(capture({"-o", directory}, {first.pid(), second.pid()}).status, 0);
    Words arguments = {"-w", "-f", "pages"};
    for (const std::string& pid : pids) arguments.push_back(directory + "/e2e-tests-" + pid + ".memgraph");
    const Row live = measure({first.pid(), second.pid()}).summary()[kUntagged];
    const Row saved = runZorbel(arguments).summary()[kUntagged];
    EXPECT_EQ(saved.dirty, live.dirty);
    EXPECT_EQ(saved.reclaimable, 0);
    EXPECT_EQ(saved.clean, live.clean + live.reclaimable);
    EXPECT_GE(live.reclaimable, 30);
}

TEST_F(CaptureTest, KeepsExistingFiles) {
    const Fixture fixture;
    std::ofstream(file) << "mine";
    Outcome outcome = capture({"-o", file}, {fixture.pid()});
    EXPECT_NE(outcome.status, 0);
    EXPECT_EQ(outcome.error, "zorbel-capture: " + file + ": File exists (--force replaces it)\n");
    EXPECT_EQ(std::filesystem::file_size(file), 4U);
    EXPECT_EQ(capture({"-o", file, "--force"}, {fixture.pid()}).status, 0);
    EXPECT_GT(std::filesystem::file_size(file), 1000U);
    const std::string pipe = directory + "/pipe";
    EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const char* force : {"-t", "--force"})
        EXPECT_THAT(capture({force, "-o", pipe}, {fixture.pid()}).error,
                    HasSubstr("File exists, and is no regular file\n"));
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
    EXPECT_THAT(capture({"-o", directory + "/none/x"}, {fixture.pid()}).error,
                HasSubstr("No such file or directory\n"));
    EXPECT_EQ(runZorbel({"-c", "ulimit -f 1; exec \"$0\" -o $1/large $2", PROGRAM_DIR "/zorbel-capture",
                         directory, std::to_string(fixture.pid())},
                        {"bash"})
                  .error,
              "zorbel-capture: " + directory + "/large: File too large\n");
    EXPECT_EQ(filesInDirectory(), 2U);  // Failed captures left no files.
    outcome = capture({"-o", "-"}, {fixture.pid()});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.output, testing::StartsWith("{\"format\":\"zorbel-memgraph\",\"version\":1,"));
    EXPECT_THAT(runZorbel({"-c", "exec \"$0\" -o - $1 >/dev/full", PROGRAM_DIR "/zorbel-capture",
                           std::to_string(fixture.pid())},
                          {"sh"})
                    .error,
                "zorbel-capture: standard output: No space left on device\n");
}

TEST_F(CaptureTest, ReportsErrors) {
    const Fixture fixture;
    Fixture shade;
    shade.kill(false);
    const std::string hint = "Try 'zorbel-capture --help'.\n";
    const std::pair<Words, std::string> rows[] = {
        {{"1"}, "zorbel-capture: -o must say where the graphs go\n" + hint},
        {{"-o", file}, "zorbel-capture: no process is named\n" + hint},
        {{"-a", "-o", directory, "x"},
         "zorbel-capture: -a takes all processes, and none can be named .*\n" + hint},
        {{"-q"}, ".*/zorbel-capture: invalid option -- 'q'\n" + hint},
        {{"-o", file, "no-such-process"},
         "zorbel-capture: Unable to find pid for process matching 'no-such-process'\n"},
        {{"-o", file, "0"}, "zorbel-capture: the kernel can't be saved\n"},
        {{"-o", file, std::to_string(fixture.pid()), std::to_string(shade.pid())},
         "zorbel-capture: 2 processes need a directory, and .*/one is none\n" + hint},
        {{"-o", file, std::to_string(shade.pid())},
         "mach_vm_region_recurse: .*\nbailing out .*\nzorbel-capture: .*: Address space no longer exists "
         "\\(zombie\\); not saved\n"},
    };
    for (const auto& [words, error] : rows) {
        const Outcome outcome = capture(words);
        EXPECT_NE(outcome.status, 0);
        EXPECT_THAT(outcome.error, MatchesRegex(error));
    }
    EXPECT_EQ(filesInDirectory(), 0U);
    // The other process is still saved.
    EXPECT_NE(capture({"-o", directory}, {fixture.pid(), shade.pid()}).status, 0);
    EXPECT_EQ(filesInDirectory(), 1U);
    EXPECT_THAT(capture({"-h"}).output, HasSubstr("\nUsage: zorbel-capture "));
    if (geteuid() != 0) GTEST_SKIP() << "the processes of others take root";
    EXPECT_EQ(capture({"--force", "-a", "-o", directory}).status, 0);
    EXPECT_GE(filesInDirectory(), 2U);
}

}  // namespace
}  // namespace zorbel::e2e
