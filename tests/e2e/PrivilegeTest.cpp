// What users other than root get: as much as their rights show, and never a wrong figure without a word.

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/Restriction.h"

namespace zorbel::e2e {
namespace {

using namespace testing;

const std::string kUntagged = "untagged (\"VM_ALLOCATE\")";

/// A report to a user who is not root, but has these capabilities.
Outcome measureAsNobody(const std::vector<pid_t>& pids, const std::vector<unsigned>& capabilities = {}) {
    return runZorbel(wide(pids), {kZorbel}, [&] { becomeNobody(capabilities); });
}

TEST(PrivilegeTest, WhoMayTraceNeedsNotBeRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const Region memory(200), disk(40, MAP_PRIVATE, newFile(40, "/var/tmp"));
    const Region changed(40, MAP_SHARED, newFile(40, "/var/tmp"));
    const Fixture fixture(
        {[&] { memory.touch(0, 150), disk.touch(0, 10), disk.read(20, 4), changed.touch(0, 6); }});
    Table expected = measure({fixture.pid()}).tableOf(fixture.pid());
    for (const unsigned capability : {unsigned{CAP_SYS_PTRACE}, unsigned{CAP_PERFMON}}) {
        const Outcome outcome = measureAsNobody({fixture.pid()}, {capability});
        EXPECT_EQ(outcome.error, "");
        Table table = outcome.tableOf(fixture.pid());
        EXPECT_EQ(table["mapped file"], expected["mapped file"]);
        EXPECT_EQ(table["TOTAL"].dirty, expected["TOTAL"].dirty);
        EXPECT_GE(table[kUntagged].dirty, 150);
    }
}

/// Whether zorbel opens smaps of the process, when the user without privilege runs it.
bool readsSmaps(pid_t pid) {
    const std::string log = "/tmp/opened-" + std::to_string(getpid());
    Words command = {"strace",
                     "-f",
                     "-e",
                     "trace=openat",
                     "-o",
                     log,
                     "setpriv",
                     "--reuid=65534",
                     "--regid=65534",
                     "--clear-groups",
                     kZorbel};
    const Words arguments = wide({pid});
    EXPECT_EQ(runZorbel(arguments, command).status, 0);
    std::ifstream file(log);
    const std::string opened(std::istreambuf_iterator<char>(file), {});
    unlink(log.c_str());
    EXPECT_THAT(opened, HasSubstr("\"maps\""));
    return opened.find("\"smaps\"") != std::string::npos;
}

TEST(PrivilegeTest, SmapsIsReadForFilesThatWereWrittenOnly) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    if (std::system("strace -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "takes strace";
    const Region memory(20000);  // Of smaller processes, smaps may be read for lazily freed pages.
    const int file = newFile(40, "/var/tmp");
    const Region changed(40, MAP_SHARED, dup(file)), seen(40, MAP_SHARED, file);
    seen.protect(PROT_READ);
    const auto beLarge = [&] { becomeNobody(), memory.touch(0, 20000); };
    const Fixture without({beLarge});
    if (readsSmaps(without.pid())) GTEST_SKIP() << "the machine has lazily freed pages";
    const Fixture reader({[&] { beLarge(), seen.read(0, 40); }});
    const Fixture writer({[&] { beLarge(), changed.touch(0, 6); }});
    EXPECT_EQ(measureAsNobody({writer.pid()}).tableOf(writer.pid())["mapped file"].dirty, 6);
    EXPECT_TRUE(readsSmaps(writer.pid()));
    // The same pages, but not written by this process: they count as clean.
    EXPECT_EQ(measureAsNobody({reader.pid()}).tableOf(reader.pid())["mapped file"],
              (Row{.clean = 40, .regions = 2}));
    EXPECT_FALSE(readsSmaps(reader.pid()));
}

TEST(PrivilegeTest, LazilyFreedPagesWithoutTheFlagsOfFrames) {
    if (geteuid() != 0) GTEST_SKIP() << "takes root";
    const Region freed(70);
    const Fixture fixture(
        {[&] { becomeNobody(), freed.touch(0, 70), freed.freeLazily(), freed.touch(0, 5); }});
    for (const auto& capabilities : {std::vector<unsigned>(), std::vector<unsigned>{CAP_SYS_ADMIN}}) {
        Table table = measureAsNobody({fixture.pid()}, capabilities).tableOf(fixture.pid());
        EXPECT_EQ(table["TOTAL"].reclaimable, 65);
    }
}

}  // namespace
}  // namespace zorbel::e2e
