// Single pages of real processes.

#include "linux/LinuxPlatform.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

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

/// Two processes that use one address space.
class OneAddressSpaceTest : public testing::Test {
  protected:
    static constexpr std::uint64_t kPages = 300;  ///< That they have at least.

    ~OneAddressSpaceTest() override {
        endFirst();
        if (other > 0) {
            kill(other, SIGKILL);
            waitpid(other, nullptr, 0);
        }
        for (const int end : {toTest[0], toTest[1], toOther[0], toOther[1]}) close(end);
    }

    void SetUp() override {
#ifdef __SANITIZE_THREAD__
        GTEST_SKIP() << "clone() of the ThreadSanitizer can't start a process in the same memory";
#endif
        ASSERT_EQ(pipe2(toTest, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(toOther, O_CLOEXEC), 0);
        first = fork();
        if (first == 0) makeMemoryAndOther();
        ASSERT_EQ(read(toTest[0], &other, sizeof other), static_cast<ssize_t>(sizeof other));
        ASSERT_GT(other, 0);
    }

    void endFirst() {
        if (first <= 0) return;
        kill(first, SIGKILL);
        waitpid(first, nullptr, 0);
        first = 0;
    }

    /// Has the other process run a program. Returns when that is mapped, false if it never is.
    [[nodiscard]] bool makeOtherExec() const {
        if (write(toOther[1], "", 1) != 1) return false;
        for (int i = 0; i < 5000; ++i) {
            std::ifstream maps("/proc/" + std::to_string(other) + "/maps");
            for (std::string line; std::getline(maps, line);)
                if (line.ends_with("/sleep")) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    std::uint64_t dirtyPagesOf(TaskName task) {
        std::uint64_t pages = 0;
        std::uint64_t size = 0;
        RegionInfoRecord record;
        for (std::uint64_t address = 0;
             machine.mach_vm_region_recurse(task, address, size, record) == kKernSuccess; address += size)
            pages += record.pages_dirtied;
        return pages;
    }

    [[noreturn]] void makeMemoryAndOther() {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::size_t size = kPages * machine.vm_kernel_page_size();
        void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) _exit(1);
        std::memset(memory, 1, size);
        static std::array<char, 1 << 16> stack;
        const pid_t child =
            clone(&beTheOther, stack.data() + stack.size(), CLONE_VM | CLONE_PARENT | SIGCHLD, &toOther[0]);
        if (write(toTest[1], &child, sizeof child) != sizeof child) _exit(1);
        for (;;) pause();
    }

    /// Without checks by sanitizers: it has the memory of a process that goes on beside it.
    __attribute__((no_sanitize("address", "thread", "undefined"))) static int beTheOther(void* input) {
        static char byte;
        static const char* arguments[] = {"/bin/sleep", "1000", nullptr};
        syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
        syscall(SYS_read, *static_cast<int*>(input), &byte, 1);
        syscall(SYS_execve, arguments[0], arguments, nullptr);
        syscall(SYS_exit, 1);
        return 1;
    }

    StreamDiagnostics diagnostics{stderr};
    LinuxPlatform machine{diagnostics};
    int toTest[2] = {-1, -1};
    int toOther[2] = {-1, -1};
    pid_t first = 0;
    pid_t other = 0;
    TaskName tasks[2] = {};
};

TEST_F(OneAddressSpaceTest, OutlivesTheProcessThatStandsForIt) {
    ASSERT_EQ(machine.task_for_pid(first, tasks[0]), kKernSuccess);
    ASSERT_EQ(machine.task_for_pid(other, tasks[1]), kKernSuccess);
    machine.readTask(tasks[1]);
    endFirst();
    machine.readTask(tasks[0]);
    machine.settleTasks();
    EXPECT_EQ(dirtyPagesOf(tasks[0]), 0U);
    EXPECT_GE(dirtyPagesOf(tasks[1]), kPages);
}

TEST_F(OneAddressSpaceTest, IsLeftByAProcessThatCallsExec) {
    ASSERT_EQ(machine.task_for_pid(first, tasks[0]), kKernSuccess);
    ASSERT_EQ(machine.task_for_pid(other, tasks[1]), kKernSuccess);
    machine.readTask(tasks[0]);
    ASSERT_TRUE(makeOtherExec());
    machine.readTask(tasks[1]);
    machine.settleTasks();
    EXPECT_GE(dirtyPagesOf(tasks[0]), kPages);
    EXPECT_GT(dirtyPagesOf(tasks[1]), 0U);
    EXPECT_LT(dirtyPagesOf(tasks[1]), kPages);
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
