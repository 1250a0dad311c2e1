// Under whose name memory is reported.

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/FuseFile.h"
#include "fixtures/Plugin.h"
#include "fixtures/SystemSetting.h"

namespace zorbel::e2e {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Key;
using testing::Not;

const std::string kPlugin = PROGRAM_DIR "/plugin.so";
const std::string kUntagged = "untagged (\"VM_ALLOCATE\")";

std::string imageProgram(const std::string& kind) { return PROGRAM_DIR "/image-program-" + kind; }

Table tableOf(const Fixture& fixture) { return measure({fixture.pid()}).tableOf(fixture.pid()); }

/// Becomes a test program, which touches so many pages of its zeroed data and of its heap at each step.
Fixture::Step become(const std::string& program, const std::string& data, const std::string& heap) {
    return [=] { execl(program.c_str(), program.c_str(), data.c_str(), heap.c_str(), nullptr); };
}

/// Loads the library; the address is that of its zeroed data.
char* load(const std::string& path) {
    void* library = dlopen(path.c_str(), RTLD_NOW);
    check(library != nullptr, path);
    return reinterpret_cast<decltype(&pluginMemory)>(dlsym(library, "pluginMemory"))();
}

void touch(char* start, std::size_t pages) {
    for (std::size_t i = 0; i < pages; ++i) static_cast<volatile char&>(start[i * kPageSize]) = 1;
}

void keepPagesSmall() { check(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) == 0, "prctl"); }

class LinkedProgramTest : public testing::TestWithParam<const char*> {};

TEST_P(LinkedProgramTest, BearsItsNameEverywhere) {
    const std::string program = imageProgram(GetParam());
    const Fixture fixture({become(program, "40", "0")});
    const Table before = tableOf(fixture);
    fixture.next();
    Table after = tableOf(fixture);
    EXPECT_THAT(after, Not(Contains(Key("mapped file"))));
    EXPECT_GT(after["__TEXT " + program].clean + after["__TEXT " + program].dirty,
              0);  // Dirty while its file is new.
    Row& data = after["__DATA " + program];
    const Row& dataBefore = before.at("__DATA " + program);
    EXPECT_EQ(data.dirty, dataBefore.dirty + 40);
    data.dirty -= 40;
    EXPECT_EQ(data, dataBefore);
    const bool hasOneFileSegment = GetParam() == std::string("one-file-segment");
    EXPECT_EQ(after.count("__LINKEDIT " + program), hasOneFileSegment ? 0U : 1U);
    EXPECT_EQ(after.count("__DATA_CONST " + program), GetParam() == std::string("no-relro") ? 0U : 1U);
}

INSTANTIATE_TEST_SUITE_P(ImageTest, LinkedProgramTest,
                         testing::Values("pie", "fixed", "static", "static-pie", "one-file-segment",
                                         "packed-relocations", "huge-alignment", "no-relro"),
                         [](const auto& instance) {
                             std::string name = instance.param;
                             std::erase(name, '-');
                             return name;
                         });

TEST(ImageTest, HeapBehindAProgramIsNotItsData) {
    const std::string program = imageProgram("fixed");
    const Fixture fixture({[&] {
        // The heap then begins where the program's zeroed data ends, and the kernel merges the two.
        check(personality(ADDR_NO_RANDOMIZE) != -1, "personality");
        become(program, "13", "30")();
    }});
    const Table before = tableOf(fixture);
    fixture.next();
    Table after = tableOf(fixture);
    EXPECT_EQ(after["__DATA " + program].dirty - before.at("__DATA " + program).dirty, 13);
    EXPECT_EQ(after["sbrk"].dirty, 30);
}

TEST(ImageTest, ZeroedDataBelowAnotherMappingIsSplitToThePage) {
    constexpr std::size_t kLargePages = 3000;
    char* large = nullptr;
    char* data = nullptr;
    const SwapDevice device;
    const Fixture fixture({[&] {
                               keepPagesSmall();
                               // Fills the gaps where the library would fit.
                               for (int i = 0; i < 256; ++i)
                                   mmap(nullptr, 1 << 19, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                               large = static_cast<char*>(mmap(nullptr, kLargePages * kPageSize,
                                                               PROT_READ | PROT_WRITE,
                                                               MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
                               data = load(kPlugin);  // Right below.
                           },
                           [&] { touch(data, 100); }, [&] { touch(large, 70); },
                           [&] {
                               check(madvise(data, 100 * kPageSize, MADV_PAGEOUT) == 0, "madvise");
                               check(madvise(large, 70 * kPageSize, MADV_PAGEOUT) == 0, "madvise");
                           }});
    // The mapping behind the last one of the library's file holds both.
    std::ifstream maps("/proc/" + std::to_string(fixture.pid()) + "/maps");
    unsigned long fileEnd = 0, start = 0, end = 0;
    for (std::string line; std::getline(maps, line) && (fileEnd == 0 || start < fileEnd);) {
        std::sscanf(line.c_str(), "%lx-%lx", &start, &end);
        if (line.ends_with(kPlugin)) fileEnd = end;
    }
    ASSERT_EQ(start, fileEnd);
    ASSERT_GT(end - start, (kLargePages + kPluginPages) * kPageSize);

    const std::string name = "__DATA " + kPlugin;
    std::vector<Table> tables = {tableOf(fixture)};
    for (int step = 0; step < (device.isUsable() ? 3 : 2); ++step) {
        fixture.next();
        tables.push_back(tableOf(fixture));
    }
    EXPECT_EQ(tables[1][name].dirty - tables[0][name].dirty, 100);
    EXPECT_EQ(tables[1][kUntagged], tables[0][kUntagged]);
    EXPECT_EQ(tables[2][name], tables[1][name]);
    EXPECT_EQ(tables[2][kUntagged].dirty - tables[1][kUntagged].dirty, 70);
    if (!device.isUsable()) GTEST_SKIP() << "pages in swap take root and an unused /dev/zram0";
    EXPECT_EQ(tables[3][name].swapped, 100);
    EXPECT_EQ(tables[3][kUntagged].swapped, 70);
}

TEST(ImageTest, DeletedLibraryInAnotherMountNamespace) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    char directory[] = "/tmp/images-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string copy = directory + std::string("/copy.so");
    char* data = nullptr;
    const Fixture fixture({[&] {
                               check(unshare(CLONE_NEWNS) == 0, "unshare");
                               check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount");
                               check(mount("none", directory, "tmpfs", 0, nullptr) == 0, "mount");
                               std::filesystem::copy(kPlugin, copy);
                               data = load(copy);
                               std::filesystem::remove(copy);
                           },
                           [&] { touch(data, kPluginPages); }});
    const std::string name = "__DATA " + copy + " (deleted)";
    const std::int64_t before = tableOf(fixture)[name].dirty;
    fixture.next();
    EXPECT_EQ(tableOf(fixture)[name].dirty - before, static_cast<std::int64_t>(kPluginPages));
    EXPECT_TRUE(std::filesystem::remove(directory));
}

/// Loads a file of a file system that then stops answering, and measures.
void expectNamesOfUnreadable(const FuseFile& file, const std::string& path) {
    const Fixture fixture({[&] { load(path); }});
    file.stopAnswering();
    const Outcome outcome = runZorbel(wide({fixture.pid()}), {"timeout", "-s", "KILL", "30", kZorbel});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "");
    for (const char* segment : {"__TEXT ", "__DATA ", "__DATA_CONST ", "__LINKEDIT "})
        EXPECT_THAT(outcome.tableOf(fixture.pid()), Contains(Key(segment + path)));
}

TEST(ImageTest, FileSystemThatHangsIsNotAsked) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const FuseFile file(kPlugin);
    if (!file.isMounted()) GTEST_SKIP() << "takes FUSE";
    expectNamesOfUnreadable(file, file.path());
}

TEST(ImageTest, FileSystemThatHangsIsNotAskedThroughAnOverlay) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const FuseFile file(kPlugin);
    char point[] = "/tmp/overlay-XXXXXX";
    ASSERT_NE(mkdtemp(point), nullptr);
    const std::string layers =
        "lowerdir=" + std::filesystem::path(file.path()).parent_path().string() + ":/usr";
    const bool isMounted = file.isMounted() && mount("none", point, "overlay", 0, layers.c_str()) == 0;
    const std::shared_ptr<void> putBack(nullptr, [&](void*) { umount2(point, MNT_DETACH), rmdir(point); });
    if (!isMounted) GTEST_SKIP() << "takes FUSE and overlays";
    expectNamesOfUnreadable(file, point + std::string("/plugin.so"));
}

TEST(ImageTest, LeaseOnAFileIsNotAwaited) {
    char path[] = "/tmp/lease-XXXXXX";
    check(close(mkstemp(path)) == 0, path);  // Nobody else may have it open.
    std::filesystem::copy_file(kPlugin, path, std::filesystem::copy_options::overwrite_existing);
    const Fixture fixture({[&] {
        const int fd = open(path, O_RDWR);
        check(mmap(nullptr, kPageSize, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0) != MAP_FAILED, "mmap");
        // Who opens the file then waits for 45 s, or until the process is told and gives the lease back.
        check(fcntl(fd, F_SETSIG, SIGWINCH) == 0 && fcntl(fd, F_SETLEASE, F_WRLCK) == 0, "lease");
    }});
    const Outcome outcome = runZorbel(wide({fixture.pid()}), {"timeout", "20", kZorbel});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.tableOf(fixture.pid()), Contains(Key(std::string("__TEXT ") + path)));
    std::filesystem::remove(path);
}

TEST(ImageTest, HeapBesideASinglePageOfAProgramIsNotItsData) {
    const std::string program = imageProgram("one-file-segment");
    const Fixture fixture({[&] {
        keepPagesSmall();
        const int flags = MAP_PRIVATE | MAP_ANONYMOUS;
        char* start =
            static_cast<char*>(mmap(nullptr, 900 * kPageSize, PROT_READ | PROT_WRITE, flags, -1, 0));
        const int fd = open(program.c_str(), O_RDONLY);
        check(mmap(start, kPageSize, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_FIXED, fd, 0) == start, "mmap");
        touch(start + kPageSize, 899);
    }});
    const Table table = tableOf(fixture);
    EXPECT_GE(table.at(kUntagged).dirty, 899);
    EXPECT_THAT(table, AllOf(Contains(Key("__TEXT " + program)), Not(Contains(Key("__DATA " + program)))));
}

TEST(ImageTest, NoAddressBelongsToALibraryCache) {
    // Where other systems have theirs.
    constexpr std::size_t kPages = 600;
    const Fixture fixture({[] {
        keepPagesSmall();
        for (const unsigned long address : {0x180000000UL, 0x7FFF00000000UL}) {
            void* start = mmap(reinterpret_cast<void*>(address), kPages * kPageSize, PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
            check(start == reinterpret_cast<void*>(address), "mmap");
            touch(static_cast<char*>(start), kPages);
        }
    }});
    EXPECT_EQ(tableOf(fixture)["shared anonymous memory"], (Row{.dirty = 2 * kPages, .regions = 2}));
}

}  // namespace
}  // namespace zorbel::e2e
