// Names of mapped programs and libraries.

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <tuple>

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

/// Executes a test program that touches this many pages of its zeroed data and its heap at each step.
Fixture::Step become(const std::string& program, const std::string& data, const std::string& heap) {
    return [=] { execl(program.c_str(), program.c_str(), data.c_str(), heap.c_str(), nullptr); };
}

/// Loads the library. Returns the address of its zeroed data.
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

/// Name, start and end of a part of a program in memory.
using Part = std::tuple<std::string, std::uint64_t, std::uint64_t>;

/// Adds a part, or extends the last one if it continues.
void add(std::vector<Part>& parts, const std::string& name, std::uint64_t start, std::uint64_t end) {
    if (start >= end) return;
    if (!parts.empty() && std::get<0>(parts.back()) == name && std::get<2>(parts.back()) == start)
        std::get<2>(parts.back()) = end;
    else
        parts.emplace_back(name, start, end);
}

/// Start of the program in the process, from /proc/PID/maps.
std::uint64_t startInMemory(const std::string& program, pid_t pid) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    std::string line;
    while (std::getline(maps, line) && !line.ends_with(program)) {
    }
    return std::stoul(line, nullptr, 16);
}

std::vector<Elf64_Phdr> programHeaders(const std::string& program) {
    std::ifstream file(program, std::ios::binary);
    Elf64_Ehdr header{};
    file.read(reinterpret_cast<char*>(&header), sizeof header);
    std::vector<Elf64_Phdr> rows(header.e_phnum);
    file.seekg(static_cast<std::streamoff>(header.e_phoff));
    file.read(reinterpret_cast<char*>(rows.data()),
              static_cast<std::streamoff>(rows.size() * sizeof rows[0]));
    return rows;
}

/// Parts according to the program headers. The slide is the distance from addresses in the file to those in
/// memory.
std::vector<Part> partsByHeaders(const std::string& program, pid_t pid, std::uint64_t& slide) {
    const auto page = [](std::uint64_t address) { return address & ~(kPageSize - 1); };
    const std::vector<Elf64_Phdr> rows = programHeaders(program);
    const auto load = std::ranges::find(rows, Elf64_Word{PT_LOAD}, &Elf64_Phdr::p_type);
    const auto relro = std::ranges::find(rows, Elf64_Word{PT_GNU_RELRO}, &Elf64_Phdr::p_type);
    slide = startInMemory(program, pid) - page(load->p_vaddr);
    std::vector<Part> parts;
    for (const Elf64_Phdr& row : rows) {
        if (row.p_type != PT_LOAD) continue;
        std::uint64_t start = slide + page(row.p_vaddr);
        const std::uint64_t end = slide + page(row.p_vaddr + row.p_memsz + kPageSize - 1);
        if ((row.p_flags & PF_W) != 0 && relro != rows.end()) {
            const std::uint64_t relroEnd = slide + page(relro->p_vaddr + relro->p_memsz);
            add(parts, "__DATA_CONST", start, relroEnd);
            start = relroEnd;
        }
        const bool hasCode = (row.p_flags & PF_X) != 0;
        const char* readOnly = hasCode || row.p_offset != 0 ? "__TEXT" : "__LINKEDIT";
        add(parts, (row.p_flags & PF_W) != 0 ? "__DATA" : readOnly, start, end);
    }
    return parts;
}

/// Number of resident pages, from /proc/PID/pagemap.
std::int64_t residentPages(pid_t pid, std::uint64_t start, std::uint64_t end) {
    const int pagemap = open(("/proc/" + std::to_string(pid) + "/pagemap").c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<std::uint64_t> entries((end - start) / kPageSize);
    const std::size_t size = entries.size() * sizeof entries[0];
    EXPECT_EQ(pread(pagemap, entries.data(), size, static_cast<off_t>(start / kPageSize * sizeof entries[0])),
              size);
    close(pagemap);
    return std::ranges::count_if(entries, [](std::uint64_t entry) { return entry >> 63 != 0; });
}

TEST_P(LinkedProgramTest, RegionsAgreeWithProgramHeadersSymbolsAndPages) {
    const std::string program = imageProgram(GetParam());
    const Fixture fixture({become(program, "40", "0")});
    const std::int64_t dirtyBefore = tableOf(fixture)["__DATA " + program].dirty;
    fixture.next();
    EXPECT_EQ(tableOf(fixture)["__DATA " + program].dirty - dirtyBefore, 40);

    const std::string pid = std::to_string(fixture.pid());
    std::vector<Part> parts;
    std::map<std::string, std::int64_t> resident;
    for (const ListedRegion& region : runZorbel({"-v", "-w", "--pid", pid}).listing()) {
        if (!region.name.ends_with(program)) continue;
        EXPECT_NE(region.name, "mapped file " + program);
        const std::string segment = region.name.substr(0, region.name.find(' '));
        add(parts, segment, region.start, region.end);
        resident[segment] += region.resident();
    }
    std::uint64_t slide = 0;
    EXPECT_EQ(parts, partsByHeaders(program, fixture.pid(), slide));
    std::map<std::string, std::int64_t> present;
    for (const auto& [segment, start, end] : parts)
        present[segment] += residentPages(fixture.pid(), start, end);
    EXPECT_EQ(resident, present);

    const std::string symbols = runZorbel({program}, {"nm"}).output;
    for (const auto& [symbol, segment] :
         {std::pair(" T main\n", "__TEXT"), {" b _ZZ4mainE6zeroed\n", "__DATA"}}) {
        const std::size_t line = symbols.rfind('\n', symbols.find(symbol)) + 1;
        const std::uint64_t address = slide + std::stoul(symbols.substr(line, 16), nullptr, 16);
        EXPECT_TRUE(std::ranges::any_of(parts, [&](const Part& part) {
            const auto& [name, start, end] = part;
            return name == segment && start <= address && address < end;
        })) << symbol;
    }
}

INSTANTIATE_TEST_SUITE_P(ImageTest, LinkedProgramTest,
                         testing::Values("pie", "fixed", "static", "static-pie", "one-file-segment",
                                         "packed-relocations", "huge-alignment", "no-relro"),
                         [](const auto& instance) {
                             std::string name = instance.param;
                             std::erase(name, '-');
                             return name;
                         });

TEST(ImageTest, SeparatesHeapFromProgramData) {
    const std::string program = imageProgram("fixed");
    const Fixture fixture({[&] {
        // The heap then starts at the end of the program's zeroed data, and the kernel merges the two.
        check(personality(ADDR_NO_RANDOMIZE) != -1, "personality");
        become(program, "13", "30")();
    }});
    const Table before = tableOf(fixture);
    fixture.next();
    Table after = tableOf(fixture);
    EXPECT_EQ(after["__DATA " + program].dirty - before.at("__DATA " + program).dirty, 13);
    EXPECT_EQ(after["sbrk"].dirty, 30);
}

TEST(ImageTest, SplitsZeroedDataFromAMergedMapping) {
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
    // The mapping after the library's last one contains both.
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

TEST(ImageTest, NamesDeletedLibraryInAnotherMountNamespace) {
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

/// Loads a file from a file system that then stops answering, and measures the process.
void expectNamesOfUnreadable(const FuseFile& file, const std::string& path) {
    const Fixture fixture({[&] { load(path); }});
    file.stopAnswering();
    const Outcome outcome = runZorbel(wide({fixture.pid()}), {"timeout", "-s", "KILL", "30", kZorbel});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "");
    for (const char* segment : {"__TEXT ", "__DATA ", "__DATA_CONST ", "__LINKEDIT "})
        EXPECT_THAT(outcome.tableOf(fixture.pid()), Contains(Key(segment + path)));
}

TEST(ImageTest, DoesNotReadFromAHangingFileSystem) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const FuseFile file(kPlugin);
    if (!file.isMounted()) GTEST_SKIP() << "takes FUSE";
    expectNamesOfUnreadable(file, file.path());
}

TEST(ImageTest, DoesNotReadThroughAnOverlayOfAHangingFileSystem) {
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

TEST(ImageTest, DoesNotWaitForAFileLease) {
    char path[] = "/tmp/lease-XXXXXX";
    check(close(mkstemp(path)) == 0, path);  // A lease requires that nobody else has it open.
    std::filesystem::copy_file(kPlugin, path, std::filesystem::copy_options::overwrite_existing);
    const Fixture fixture({[&] {
        const int fd = open(path, O_RDWR);
        check(mmap(nullptr, kPageSize, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0) != MAP_FAILED, "mmap");
        // Opening the file then blocks for 45 s, or until the process gives up the lease.
        check(fcntl(fd, F_SETSIG, SIGWINCH) == 0 && fcntl(fd, F_SETLEASE, F_WRLCK) == 0, "lease");
    }});
    const Outcome outcome = runZorbel(wide({fixture.pid()}), {"timeout", "20", kZorbel});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.tableOf(fixture.pid()), Contains(Key(std::string("__TEXT ") + path)));
    std::filesystem::remove(path);
}

TEST(ImageTest, SeparatesAnonymousMemoryFromAMappedPage) {
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

TEST(ImageTest, NamesOnlyWhatTheFileMaps) {
    Dl_info library{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&qsort), &library), 0);
    const std::string path = std::filesystem::canonical(library.dli_fname);
    const std::vector<Elf64_Phdr> rows = programHeaders(path);
    constexpr std::uint64_t kStart = 0x300000000000;
    constexpr std::size_t kPages = 900;
    // One page of a segment, and maybe more where the headers say.
    struct Pages {
        std::size_t first, count;
    };
    const std::tuple<Elf64_Word, std::vector<Pages>> cases[] = {
        {PF_X, {{0, 1}}}, {PF_X, {{0, 1}, {30, 2}}}, {PF_W, {{0, 1}}}};
    for (const auto& [flag, mapped] : cases) {
        const auto row = std::ranges::find_if(rows, [flag = flag](const Elf64_Phdr& header) {
            return header.p_type == PT_LOAD && (header.p_flags & flag) != 0;
        });
        ASSERT_NE(row, rows.end());
        ASSERT_GT(row->p_filesz, kPageSize);
        const std::uint64_t offset = row->p_offset & ~(kPageSize - 1);
        const int protection = PROT_READ | (flag == PF_X ? PROT_EXEC : PROT_WRITE);
        const Fixture fixture({[&, &mapped = mapped] {
            keepPagesSmall();
            char* start = static_cast<char*>(mmap(reinterpret_cast<void*>(kStart), kPages * kPageSize,
                                                  PROT_READ | PROT_WRITE,
                                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0));
            check(start == reinterpret_cast<char*>(kStart), "mmap");
            touch(start, kPages);
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            for (const Pages& pages : mapped)
                check(mmap(start + pages.first * kPageSize, pages.count * kPageSize, protection,
                           MAP_PRIVATE | MAP_FIXED, fd,
                           static_cast<off_t>(offset + pages.first * kPageSize)) != MAP_FAILED,
                      "mmap");
        }});
        std::size_t expected = 0;
        for (const Pages& pages : mapped) expected += pages.count;
        std::size_t named = 0;
        for (const ListedRegion& region :
             runZorbel({"-v", "-w", "--pid", std::to_string(fixture.pid())}).listing()) {
            const bool isThere = region.start >= kStart && region.end <= kStart + kPages * kPageSize;
            if (isThere && region.name.starts_with("__")) named += static_cast<std::size_t>(region.size);
        }
        EXPECT_EQ(named, expected);
        EXPECT_GE(tableOf(fixture)[kUntagged].dirty, static_cast<std::int64_t>(kPages - expected));
    }
}

TEST(ImageTest, HasNoSharedLibraryCache) {
    // Addresses of such caches on other systems.
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
