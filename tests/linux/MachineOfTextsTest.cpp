// Whole machines as folders of texts: a healthy one, hostile ones, and those of other kernels.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "linux/LinuxPlatform.h"
#include "support/ScriptedRun.h"
#include "support/TestData.h"

namespace zorbel::test {
namespace {

using namespace testing;

constexpr std::int32_t kBaker = 5000001;  // Above the pids that Linux hands out.
constexpr KernReturn kIsDirectory = kernReturnFromErrno(EISDIR);

/// A copy of the healthy machine of tests/data/, which a test may spoil.
class MachineOfTextsTest : public Test {
  protected:
    MachineOfTextsTest() {
        std::filesystem::copy(SOURCE_DIR "/tests/data/machine", _path,
                              std::filesystem::copy_options::recursive);
        std::filesystem::create_symlink("/usr/bin/baker", _path + "/proc/5000001/exe");
        std::filesystem::create_symlink("/usr/bin/miller (deleted)", _path + "/proc/5000002/exe");
    }
    ~MachineOfTextsTest() override { std::filesystem::remove_all(_path); }

    /// Replaces a file of the baker's.
    void put(const std::string& file, const std::string& text) {
        remove(file);
        std::ofstream(_path + "/proc/5000001/" + file) << text;
    }
    void putDirectory(const std::string& file) {
        remove(file);
        std::filesystem::create_directory(_path + "/proc/5000001/" + file);
    }
    void remove(const std::string& file) { std::filesystem::remove_all(_path + "/proc/5000001/" + file); }
    std::string text(const std::string& file) { return contentsOf(_path + "/proc/5000001/" + file); }

    /// The baker's parent, flags and command, and whether it still runs.
    std::string record() {
        LinuxPlatform platform(messages, root);
        std::ostringstream text;
        BsdInfoRecord info;
        if (platform.proc_pidinfo(kBaker, info))
            text << info.pbi_ppid << ' ' << std::hex << info.pbi_flags << std::dec << ' '
                 << std::string_view(info.pbi_comm, strnlen(info.pbi_comm, sizeof info.pbi_comm));
        const TaskName task = openBaker(platform);
        BsdShortInfoRecord state;
        const int error = platform.proc_pidinfo(task, state);
        text << ", " << (error != 0 ? strerrorname_np(error) : std::to_string(state.pbsi_status));
        return text.str();
    }

    /// Each of the baker's regions with its pages: resident/dirty/swapped/reusable; then the code at the end.
    std::string regions() {
        LinuxPlatform platform(messages, root);
        const TaskName task = openBaker(platform);
        platform.readTask(task);
        std::ostringstream text;
        std::uint64_t size = 0;
        RegionInfoRecord region;
        std::uint64_t at = 0;
        KernReturn code = kKernSuccess;
        for (std::uint64_t end = 0;
             (code = platform.mach_vm_region_recurse(task, at, size, region)) == kKernSuccess;
             at = end = at + size) {
            EXPECT_GE(at, end);
            text << std::hex << at << '-' << at + size << std::dec << ' ' << region.pages_resident << '/'
                 << region.pages_dirtied << '/' << region.pages_swapped_out << '/' << region.pages_reusable
                 << ' ';
        }
        text << std::hex << code;
        return text.str();
    }

    /// What the baker is charged, now and at most, and its memory in the kernel, in KiB.
    std::string charges() {
        LinuxPlatform platform(messages, root);
        const TaskName task = openBaker(platform);
        ResourceUsageRecord usage;
        KernelMemoryRecord kernel;
        const int error = platform.proc_pid_rusage(task, usage);
        const KernReturn code = platform.task_info(task, kernel);
        EXPECT_EQ(error == 0, code == kKernSuccess);
        if (error != 0) return strerrorname_np(error);
        return std::to_string(usage.ri_phys_zorbel / 1024) + " " +
               std::to_string(usage.ri_lifetime_max_phys_zorbel / 1024) + " " +
               std::to_string(kernel.total_palloc / 1024);
    }

    static TaskName openBaker(LinuxPlatform& platform) {
        TaskName task = kTaskNull;
        EXPECT_EQ(platform.task_for_pid(kBaker, task), kKernSuccess);
        return task;
    }

    RecordedDiagnostics messages;
    const std::string _path = mkdtemp(std::string("/tmp/zorbel-unit-XXXXXX").data());
    const SystemRoot root = {_path + "/proc", _path + "/sys"};
};

TEST_F(MachineOfTextsTest, ReportOnAHealthyMachine) {
    if (sysconf(_SC_PAGESIZE) != 4096) GTEST_SKIP() << "the report counts pages of 4 KiB";
    LinuxPlatform platform(messages, root);
    std::vector<std::int32_t> pids;
    EXPECT_TRUE(platform.proc_listallpids(pids));
    EXPECT_THAT(pids, ElementsAre(0, kBaker, kBaker + 1, kBaker + 2, kBaker + 3));
    const Outcome outcome =
        runOn(platform, messages, {"-v", "-w", "-f", "bytes", "-t", "baker", "kworker/0:1"});
    // Workers number objects as they come to them.
    const std::string report = std::regex_replace(outcome.out, std::regex("\\[ +[0-9a-f]+\\]"), "[object]");
    EXPECT_EQ(report, testData("machine/report.txt"));
    EXPECT_EQ(outcome.err, "Unable to find pid for process matching 'kworker/0:1'\n");
}

TEST_F(MachineOfTextsTest, RecordsFromHostileStats) {
    const std::string healthy = text("stat");
    const std::size_t name = healthy.find("baker");
    const auto with = [&](const std::string& command, const std::string& from = "",
                          const std::string& to = "") {
        std::string stat = healthy;
        stat.replace(name, 5, command);
        if (!from.empty()) stat.replace(stat.find(from), from.size(), to);
        return stat;
    };
    const std::pair<std::string, std::string> rows[] = {
        {healthy, "1 90 baker, 2"},
        {with("a) R 7 (b\n\x1b[2J"), "1 90 a) R 7 (b\\x0A, 2"},  // As much as there is room for.
        {with("\xff\xc2\x9b()) Z"), "1 90 \\xFF\\xC2\\x9B()) , 2"},
        {with(""), "1 90 , 2"},
        {with("x", " S ", " Z "), "1 90 x, 5"},
        {with("x", " 4194304 ", " 4194308 "), "1 90 x, 5"},  // On the way out.
        {with("x", " 34816 ", " 0 "), "1 10 x, 2"},
        {with("x", "140724475097168", "4290000000"), "1 80 x, 2"},
        {with("x", " 4194304 ", " 69238880 "), ", 2"},  // A thread of the kernel.
        {with("x", " 391 ", " 99999999999999999999 "), ", EIO"},
        {with("x", " 391 ", " 0x1 "), ", EIO"},
        {healthy.substr(0, healthy.find(" 99 ")), ", EIO"},
        {healthy.substr(0, name + 3), ", EIO"},
        {std::string("\0\xff()\x7f \n", 7), ", EIO"},
        {"", ", EIO"},
    };
    for (const auto& [stat, expected] : rows) {
        put("stat", stat);
        EXPECT_EQ(record(), expected) << stat;
    }
    putDirectory("stat");
    EXPECT_EQ(record(), ", EISDIR");
    remove("stat");
    EXPECT_EQ(record(), ", ESRCH");
}

TEST_F(MachineOfTextsTest, RegionsFromHostileSmaps) {
    const std::string entry = "1000-3000 rw-p 0 0:0 0 [heap]\nRss: 8 kB\nPrivate_Dirty: 4 kB\n";
    const std::string regionOfEntry = "1000-3000 2/2/0/0 ";
    const std::string second = "8000-9000 rw-p 0 0:0 0 \nRss: 4 kB\n";
    const std::string regionOfSecond = "8000-9000 1/1/0/0 ";
    const std::pair<std::string, std::string> rows[] = {
        {entry + second, regionOfEntry + regionOfSecond + "1"},
        {entry + second.substr(0, 4), regionOfEntry + "1"},
        {entry + second.substr(0, 12), regionOfEntry + "1"},
        {entry + second.substr(0, 27), regionOfEntry + "8000-9000 0/0/0/0 1"},
        {entry + "Rss: 12 kB\nUnknown: 4 kB\n\n\xff\n" + second, "1000-3000 3/3/0/0 " + regionOfSecond + "1"},
        // Of entries that overlap, the later one counts: the kernel has merged the others into it.
        {entry + "2000-4000 rw-p 0 0:0 0 \nRss: 4 kB\n" + second,
         "2000-4000 1/1/0/0 " + regionOfSecond + "1"},
        {entry + entry, regionOfEntry + "1"},
        {second + entry, regionOfEntry + "1"},
        {"3000-1000 rw-p 0 0:0 0 \nRss: 4 kB\n" + second, regionOfSecond + "1"},
        {"10000000000000000-10000000000001000 rw-p 0 0:0 0 \n" + second, regionOfSecond + "1"},
        {"ffffffffff600000-ffffffffffffffff r--p 0 0:0 0 \nRss: 4 kB\n",
         "ffffffffff600000-ffffffffffffffff 1/1/0/0 1"},
        {"1000-5000000000000 rw-p 0 0:0 0 \nRss: 17179869180 kB\n",
         "1000-5000000000000 4294967295/4294967295/0/0 1"},
        {"1000-3000 rw-s 0 ffe:1 7 /" + std::string(200000, 'x') + "\nRss: 4 kB\n" + second,
         regionOfSecond + "1"},
        {std::string("\x7f"
                     "ELF\0\0\xff\xff",
                     8),
         "1"},
        {"", "10000003"},
    };
    for (const auto& [smaps, expected] : rows) {
        put("smaps", smaps);
        EXPECT_EQ(regions(), expected) << smaps.substr(0, 300);
    }
    putDirectory("smaps");
    std::ostringstream code;
    code << std::hex << kIsDirectory;
    EXPECT_EQ(regions(), code.str());
    remove("smaps");
    EXPECT_EQ(regions(), "10000003");
    remove("");
    EXPECT_EQ(regions(), "10000003");
}

TEST_F(MachineOfTextsTest, TextsOfOtherKernels) {
    const std::string smaps = text("smaps");
    const std::string healthy = regions();
    EXPECT_EQ(charges(), "92 200 76");
    /// The text without the lines of some fields.
    const auto without = [](std::string lines, const std::string& fields) {
        return std::regex_replace(lines, std::regex("(" + fields + "):.*\n"), "");
    };
    for (const char* fields :
         {"Pss_Dirty|KSM|ProtectionKey|FilePmdMapped", "Pss|SwapPss|THPeligible|Locked|VmFlags"}) {
        put("smaps", without(smaps, fields));
        EXPECT_EQ(regions(), healthy) << fields;
    }
    put("smaps", std::regex_replace(smaps, std::regex("VmFlags"), "New:   8 kB\nVmFlags"));
    EXPECT_EQ(regions(), healthy);
    const std::string status = text("status");
    const std::pair<const char*, std::string> rows[] = {
        {"CoreDumping|Umask|VmPeak", "92 200 76"},
        {"HugetlbPages|VmSwap|VmHWM", "84 84 76"},
        {"VmPTE|Threads", "92 200 16"},
        {"RssAnon", "ESRCH"},  // As of a process without memory.
    };
    for (const auto& [fields, expected] : rows) {
        put("status", without(status, fields));
        EXPECT_EQ(charges(), expected) << fields;
    }
    for (const char* broken :
         {"", "RssAnon", "\nRssAnon:\t-1 kB\n", "\nRssAnon:\t99999999999999999999 kB\n"}) {
        put("status", broken);
        EXPECT_EQ(charges(), "ESRCH") << broken;
    }
}

TEST_F(MachineOfTextsTest, MissingPartsOfAMachine) {
    LinuxPlatform platform(messages, {_path + "/proc", _path + "/none"});
    std::string area;
    EXPECT_TRUE(platform.sysctl_procargs(kBaker, area));
    EXPECT_EQ(area, std::string("\0\0\0\0/usr/bin/baker\0", 19));
    put("exe", "/usr/bin/baker");
    EXPECT_FALSE(platform.sysctl_procargs(kBaker, area));
    remove("exe");
    EXPECT_FALSE(platform.sysctl_procargs(kBaker, area));
    TaskName task = kTaskNull;
    remove("maps");
    EXPECT_EQ(platform.task_for_pid(kBaker, task), kKernSuccess);
    remove("");
    std::ofstream(_path + "/proc/5000001") << "text";
    EXPECT_EQ(platform.task_for_pid(kBaker, task), kernReturnFromErrno(ENOTDIR));
    EXPECT_EQ(task, kTaskNull);
    BsdInfoRecord info;
    EXPECT_FALSE(platform.proc_pidinfo(kBaker, info));
    KernelMemoryAccount account;
    EXPECT_EQ(platform.mach_memory_info(account), kKernSuccess);
    EXPECT_THAT(account.zones, IsEmpty());
    for (const MemoryInfoRecord& record : account.memory) EXPECT_EQ(record.size + record.mapped, 0U);
    std::filesystem::create_directory(_path + "/proc/slabinfo");
    EXPECT_EQ(platform.mach_memory_info(account), kIsDirectory);
    std::filesystem::remove_all(_path + "/proc");
    std::vector<std::int32_t> pids;
    EXPECT_FALSE(platform.proc_listallpids(pids));
}

}  // namespace
}  // namespace zorbel::test
