// What users other than root get: as much as their rights show, and never a wrong figure without a word.

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <unistd.h>

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
    const Fixture fixture({[&] {
        memory.touch(0, 150), disk.touch(0, 10), disk.read(20, 4), changed.touch(0, 6);
    }});
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

}  // namespace
}  // namespace zorbel::e2e
