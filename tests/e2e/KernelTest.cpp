// The kernel of this machine as a target.

#include <gmock/gmock.h>
#include <linux/bpf.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"

namespace zorbel::e2e {
namespace {

using testing::Ge;
using testing::HasSubstr;
using testing::Le;

/// Figures of /proc/meminfo, in pages.
std::map<std::string, std::int64_t> machineMemory() {
    std::map<std::string, std::int64_t> figures;
    std::ifstream file("/proc/meminfo");
    std::string item;
    for (std::int64_t kibibytes = 0; file >> item >> kibibytes; file.ignore(99, '\n'))
        figures[item] = kibibytes * 1024 / static_cast<std::int64_t>(kPageSize);
    return figures;
}

class KernelTest : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "takes root";
    }
};

TEST_F(KernelTest, TotalIsWithinTheBoundsOfMeminfo) {
    const Row total = measure({0}).tableOf(0)["TOTAL"];
    auto memory = machineMemory();
    const std::int64_t users = memory["AnonPages:"] + memory["Hugetlb:"];
    const std::int64_t cache = memory["Cached:"] + memory["Buffers:"];
    EXPECT_LE(total.dirty, memory["MemTotal:"] - memory["MemFree:"] - users - cache);
    const std::int64_t own =
        memory["Slab:"] + memory["PageTables:"] + memory["KernelStack:"] + memory["Percpu:"];
    EXPECT_GE(total.dirty + total.reclaimable,
              own * 98 / 100);  // Unused parts of slabs are reclaimable.
}

TEST_F(KernelTest, ZoneFollowsItsObjects) {
    constexpr int kNames = 100000;
    constexpr std::int64_t kPages = kNames / 50;  // At least 80 bytes each.
    const std::filesystem::path directory = testing::TempDir() + "names-" + std::to_string(getpid());
    const auto dentries = [] { return measure({0}).tableOf(0)["dentry"].dirty; };
    std::filesystem::create_directory(directory);
    const std::int64_t before = dentries();
    struct stat status {};
    for (int i = 0; i < kNames; ++i)
        stat((directory / std::to_string(i)).c_str(), &status);  // The kernel caches missing names.
    const std::int64_t full = dentries();
    std::filesystem::remove(directory);
    EXPECT_THAT(full - before, Ge(kPages));
    // The kernel frees them later.
    std::int64_t after = full;
    for (int i = 0; i < 100 && after - full > -kPages; ++i) {
        usleep(100000);
        after = dentries();
    }
    EXPECT_THAT(after - full, Le(-kPages));
}

TEST_F(KernelTest, MappedBpfArrayCountsForItsProcessesOnce) {
    constexpr std::uint32_t kPages = 200;
    bpf_attr attributes{};
    attributes.map_type = BPF_MAP_TYPE_ARRAY;
    attributes.key_size = sizeof(std::uint32_t);
    attributes.value_size = static_cast<std::uint32_t>(kPageSize);
    attributes.max_entries = kPages;
    attributes.map_flags = BPF_F_MMAPABLE;
    const auto map = static_cast<int>(syscall(SYS_bpf, BPF_MAP_CREATE, &attributes, sizeof attributes));
    if (map < 0) GTEST_SKIP() << "no BPF map can be made";
    const Region region(kPages, MAP_SHARED, map);
    const auto touch = [&] { region.touch(0, kPages); };
    const Fixture first({touch}), second({touch});
    const auto ofKernel = [](const Outcome& outcome) { return outcome.tableOf(0)["array_map_alloc"].dirty; };
    const std::int64_t alone = ofKernel(measure({0}));
    EXPECT_GE(alone, kPages);
    const Outcome all = measure({0, first.pid(), second.pid()});
    EXPECT_EQ(ofKernel(all), alone - kPages);
    EXPECT_EQ(all.summary()["BPF map"], (Row{.dirty = kPages, .regions = 2}));
}

TEST_F(KernelTest, AcceptsAllWaysToSelectTheKernel) {
    const Fixture fixture;
    const std::pair<Words, bool> rows[] = {
        {{"kernel"}, false}, {{"-p", "0"}, false}, {{"-a"}, true}, {{"-t", "--pid", "0"}, true}};
    for (const auto& [words, isAll] : rows) {
        const std::string output = runZorbel(words).output;
        EXPECT_THAT(output, HasSubstr("\nkernel [0]: 64-bit\tZorbel: "));
        EXPECT_THAT(output, HasSubstr("\n\tMaps:\n\t\tVM_KERN_COUNT_MANAGED: "));
        EXPECT_EQ(output.find(headerOf(fixture.pid())) != std::string::npos, isAll);
    }
    EXPECT_THAT(runZorbel({"-v", "kernel"}).output, HasSubstr("   dentry zone\n"));
}

TEST_F(KernelTest, RequiresRoot) {
    const std::filesystem::path copy = "/tmp/zorbel-" + std::to_string(getpid());
    std::filesystem::copy_file(kZorbel, copy);
    const Outcome outcome =
        runZorbel({"--pid", "0"}, {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy});
    std::filesystem::remove(copy);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "kernel [0]: mach_memory_info: Permission denied\n");
    EXPECT_THAT(outcome.output, HasSubstr("No results gathered.\n\tkernel [0]: Permission denied\n"));
}

}  // namespace
}  // namespace zorbel::e2e
