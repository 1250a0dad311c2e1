// Real processes give the same report however many workers read them.

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "aggregate/ZBZorbel.h"
#include "inspect/ZBProcess.h"
#include "linux/LinuxPlatform.h"
#include "report/ZBOutputFormatterText.h"

namespace zorbel::test {
namespace {

/// Stopped forks of this process. Each has rewritten a part of what all have in common.
class WorkersTest : public testing::Test {
  protected:
    static constexpr std::size_t kPages = 600;
    static constexpr int kChildren = 12;

    WorkersTest() {
        const auto map = [this](int flags) {
            void* start = mmap(nullptr, kPages * page, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0);
            return start == MAP_FAILED ? nullptr : static_cast<volatile char*>(start);
        };
        volatile char* own = map(MAP_PRIVATE);
        volatile char* shared = map(MAP_SHARED);
        for (std::size_t i = 0; i < kPages; ++i) own[i * page] = 1;
        for (std::size_t child = 0; child < kChildren; ++child) {
            const pid_t pid = fork();
            if (pid == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (std::size_t i = child * 13; i < kPages; i += child + 2) own[i * page] = 2;
                for (std::size_t i = child * 40; i < child * 40 + 60; ++i) shared[i * page] = 2;
                for (;;) kill(getpid(), SIGSTOP);
            }
            children.push_back(pid);
            siginfo_t info{};
            waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WEXITED);
        }
    }
    ~WorkersTest() override {
        for (const pid_t child : children) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    /// Listings and tables.
    std::string report(unsigned workers) {
        LinuxPlatform machine(diagnostics);
        Targets targets;
        for (const pid_t child : children) targets.push_back(ZBProcess::processWithPid(machine, child));
        ZBZorbel zorbel(machine, std::move(targets), workers);
        zorbel.gatherData();
        char* text = nullptr;
        std::size_t size = 0;
        std::FILE* stream = open_memstream(&text, &size);
        zorbel.addOutputFormatter(std::make_shared<ZBOutputFormatterText>(machine, SummaryFormat::kBytes,
                                                                          kShowSwapped | kShowWired, stream));
        zorbel.printOutputVerbose(true, false);
        std::fclose(stream);
        std::string result(text, size);
        std::free(text);
        return result;
    }

    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    StreamDiagnostics diagnostics{stderr};
    std::vector<pid_t> children;
};

TEST_F(WorkersTest, AnyNumberGivesTheSameBytes) {
    const std::string alone = report(1);
    EXPECT_THAT(alone, testing::HasSubstr("Shared with"));
    for (const unsigned workers : {2U, 16U, 1U, 2U, 16U}) EXPECT_EQ(report(workers), alone) << workers;
}

}  // namespace
}  // namespace zorbel::test
