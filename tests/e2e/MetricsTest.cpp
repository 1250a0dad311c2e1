// Metrics of whole processes, compared with other figures of the kernel.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <thread>
#include <utility>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/SystemSetting.h"

namespace zorbel::e2e {
namespace {

std::string contentsOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The number behind a label; -1 when there is no such label.
std::int64_t numberIn(const std::string& text, const std::string& label) {
    const std::size_t found = text.find(label);
    return found == std::string::npos ? -1 : std::stoll(text.substr(found + label.size()));
}

std::string reportInBytes(const Fixture& fixture) {
    return runZorbel({"-f", "bytes", "--pid", std::to_string(fixture.pid())}).output;
}

/// Moves the heap of another process to swap.
void pageOutHeap(pid_t pid) {
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    std::string line;
    while (!line.ends_with("[heap]")) check(!std::getline(maps, line).fail(), "no heap");
    unsigned long start = 0, end = 0;
    std::sscanf(line.c_str(), "%lx-%lx", &start, &end);
    const iovec heap = {reinterpret_cast<void*>(start), end - start};
    const auto handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    check(syscall(SYS_process_madvise, handle, &heap, 1, MADV_PAGEOUT, 0) > 0, "process_madvise");
    close(handle);
}

TEST(MetricsTest, ChargeOfPrivateMemoryEqualsZorbel) {
    const std::string program = PROGRAM_DIR "/image-program-static";
    const int file = open(program.c_str(), O_RDONLY);
    check(fsync(file) == 0 && close(file) == 0, program);  // Pages of a new file are dirty, but not charged.
    const Fixture fixture({[&] { execl(program.c_str(), program.c_str(), "40", "30", nullptr); }});
    const std::string proc = "/proc/" + std::to_string(fixture.pid());
    if (numberIn(contentsOf(proc + "/status"), "\nRssAnon:") !=
        numberIn(contentsOf(proc + "/smaps_rollup"), "\nAnonymous:"))
        GTEST_SKIP() << "this kernel keeps estimates only of what a process has";
    const auto chargeThatAgrees = [&] {
        const std::string report = reportInBytes(fixture);
        const std::int64_t charge = numberIn(report, "\tphys_zorbel: ");
        EXPECT_EQ(charge, numberIn(report, "\tZorbel: "));
        EXPECT_GE(numberIn(report, "\tphys_zorbel_peak: "), charge);
        return charge;
    };
    const std::int64_t before = chargeThatAgrees();
    fixture.next();
    EXPECT_EQ(chargeThatAgrees() - before, static_cast<std::int64_t>(70 * kPageSize));
    const SwapDevice device;
    if (!device.isUsable()) GTEST_SKIP() << "pages in swap take root and an unused /dev/zram0";
    pageOutHeap(fixture.pid());
    EXPECT_GT(numberIn(contentsOf(proc + "/status"), "\nVmSwap:"), 0);
    EXPECT_EQ(chargeThatAgrees() - before, static_cast<std::int64_t>(70 * kPageSize));
}

TEST(MetricsTest, KernelMemoryGrowsWithTheMachine) {
    // Enough to outweigh other programs that start or end.
    const Fixture fixture({[] {},
                           [] {
                               for (int i = 0; i < 2000; ++i) std::thread(pause).detach();
                           }});
    const auto reading = [] {
        writeFile("/proc/sys/vm/stat_refresh", "1");  // Otherwise the figures lag behind.
        const std::string memory = contentsOf("/proc/meminfo");
        return (numberIn(memory, "\nKernelStack:") + numberIn(memory, "\nPageTables:")) * 1024;
    };
    // Memory of ended processes is freed later. Waits until that is done.
    const auto machines = [&] {
        std::int64_t before = -1, now = reading();
        for (int i = 0; i < 50 && std::exchange(before, now) != now; ++i) {
            usleep(100000);
            now = reading();
        }
        return now;
    };
    const auto processes = [&] { return numberIn(reportInBytes(fixture), "\t\tKPRVT: "); };
    const std::int64_t processBefore = processes();
    const std::int64_t machineBefore = machines();
    fixture.next();
    const auto growth = static_cast<double>(machines() - machineBefore);
    EXPECT_NEAR(static_cast<double>(processes() - processBefore) / growth, 1, 0.1) << growth;
}

}  // namespace
}  // namespace zorbel::e2e
