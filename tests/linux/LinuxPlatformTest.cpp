// Single pages of real processes.

#include "linux/LinuxPlatform.h"

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>

namespace zorbel::test {
namespace {

constexpr std::uint64_t kLargest = 1 << 28;  // Sanitizers reserve terabytes.

/// A stopped process with several kinds of memory.
class LinuxPlatformTest : public testing::Test {
  protected:
    LinuxPlatformTest() : page(machine.vm_kernel_page_size()), child(fork()) {
        if (child == 0) makeMemoryAndStop();
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WEXITED);
        isStopped = info.si_code == CLD_STOPPED;
    }
    ~LinuxPlatformTest() override { end(); }

    void end() {
        if (child == 0) return;
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        child = 0;
    }

    [[noreturn]] void makeMemoryAndStop() const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const auto map = [this](int flags, int fd) {
            void* start = mmap(nullptr, 2000 * page, PROT_READ | PROT_WRITE, flags, fd, 0);
            return start == MAP_FAILED ? nullptr : static_cast<volatile char*>(start);
        };
        const int file = memfd_create("file", MFD_CLOEXEC);
        if (ftruncate(file, static_cast<off_t>(2000 * page)) != 0) _exit(1);
        for (volatile char* start : {map(MAP_PRIVATE | MAP_ANONYMOUS, -1), map(MAP_SHARED, file),
                                     map(MAP_PRIVATE, file), map(MAP_SHARED | MAP_ANONYMOUS, -1)})
            for (std::size_t i = 0; i < 2000; i += i % 7 + 1) start[i * page] = 1;
        for (;;) kill(getpid(), SIGSTOP);
    }

    StreamDiagnostics diagnostics{stderr};
    LinuxPlatform machine{diagnostics};
    std::uint64_t page;
    pid_t child;
    bool isStopped = false;
};

TEST_F(LinuxPlatformTest, PageQueriesMatchRegionCounts) {
    ASSERT_TRUE(isStopped);
    TaskName task = kTaskNull;
    ASSERT_EQ(machine.task_for_pid(child, task), kKernSuccess);
    machine.readTask(task);
    std::uint64_t size = 0;
    std::uint64_t pages = 0;
    RegionInfoRecord record;
    for (std::uint64_t address = 0;
         machine.mach_vm_region_recurse(task, address, size, record) == kKernSuccess; address += size) {
        if (size > kLargest || machine.proc_regionfilename(task, address).text().starts_with('[')) continue;
        // From the middle of the first page, with a buffer larger than needed.
        std::vector<std::int32_t> dispositions(size / page + 3, -1);
        std::uint64_t count = dispositions.size();
        ASSERT_EQ(machine.mach_vm_page_range_query(task, address + page / 2, size - page / 2 - 1,
                                                   dispositions.data(), count),
                  kKernSuccess);
        ASSERT_EQ(count, size / page);
        std::uint32_t present = 0;
        for (const std::int32_t disposition : std::span(dispositions).first(count)) {
            if ((disposition & kPageQueryPresent) != 0) ++present;
            EXPECT_NE(disposition & (kPageQueryDirty | kPageQueryExternal),
                      kPageQueryDirty | kPageQueryExternal);
        }
        EXPECT_EQ(dispositions[count], -1);
        const Name path = machine.proc_regionfilename(task, address);
        EXPECT_EQ(present, record.pages_resident) << path.text() << " at " << std::hex << address;
        pages += present;
    }
    EXPECT_GT(pages, 2000U);
}

/// Without checks by sanitizers: it has the memory of a process that goes on beside it.
__attribute__((no_sanitize("address", "thread", "undefined"))) int waitForEnd(void* /*unused*/) {
    for (;;) pause();
}

TEST(LinuxPlatformSettlingTest, AddressSpaceOutlivesTheProcessThatStandsForIt) {
    constexpr std::size_t kPages = 300;
    StreamDiagnostics diagnostics{stderr};
    LinuxPlatform machine{diagnostics};
    const std::size_t size = kPages * machine.vm_kernel_page_size();
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t first = fork();
    if (first == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) _exit(1);
        std::memset(memory, 1, size);
        static std::array<char, 1 << 16> stack;
        const pid_t other =
            clone(&waitForEnd, stack.data() + stack.size(), CLONE_VM | CLONE_PARENT | SIGCHLD, nullptr);
        if (write(pipe[1], &other, sizeof other) != sizeof other) _exit(1);
        for (;;) pause();
    }
    pid_t other = 0;
    ASSERT_EQ(read(pipe[0], &other, sizeof other), static_cast<ssize_t>(sizeof other));
    ASSERT_GT(other, 0);
    TaskName tasks[2] = {};
    EXPECT_EQ(machine.task_for_pid(first, tasks[0]), kKernSuccess);
    EXPECT_EQ(machine.task_for_pid(other, tasks[1]), kKernSuccess);
    machine.readTask(tasks[1]);
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    machine.readTask(tasks[0]);
    machine.settleTasks();
    std::uint64_t pages = 0;
    std::uint64_t length = 0;
    RegionInfoRecord record;
    for (std::uint64_t address = 0;
         machine.mach_vm_region_recurse(tasks[1], address, length, record) == kKernSuccess; address += length)
        pages += record.pages_dirtied;
    EXPECT_GE(pages, kPages);
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    for (const int end : pipe) close(end);
}

TEST_F(LinuxPlatformTest, PageQueriesCoverGapsAndFailAfterExit) {
    ASSERT_TRUE(isStopped);
    TaskName task = kTaskNull;
    ASSERT_EQ(machine.task_for_pid(child, task), kKernSuccess);
    machine.readTask(task);
    std::int32_t dispositions[3] = {-1, -1, -1};
    std::uint64_t count = 2;
    EXPECT_EQ(machine.mach_vm_page_range_query(task, 0, 3 * page, dispositions, count), kKernSuccess);
    EXPECT_EQ(count, 2U);
    EXPECT_THAT(dispositions, testing::ElementsAre(0, 0, -1));
    end();
    EXPECT_EQ(machine.mach_vm_page_range_query(task, 0, 3 * page, dispositions, count), kKernInvalidArgument);
}

}  // namespace
}  // namespace zorbel::test
