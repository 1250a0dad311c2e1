#include "support/Targets.h"

namespace zorbel::test {

using namespace testing;

using ZBProcessSelectionTest = CoordinatorTest;

TEST_F(ZBProcessSelectionTest, DescriptionSelectsFirstMatch) {
    for (const auto& [pid, name] : {std::pair{10, "worker"},
                                    {42, "clerk"},
                                    {11, "worker"},
                                    {5, "first"},
                                    {12, "41"},
                                    {41, "mason"},
                                    {20, "5"},
                                    {77, "77"}})
        machine.process(pid, name);
    using Found = std::vector<std::pair<std::int32_t, std::optional<std::string>>>;
    const std::pair<std::vector<std::string>, Found> rows[] = {
        {{"worker"}, {{10, "worker"}}},
        {{" 42"}, {{42, std::nullopt}}},
        {{"42abc", "+11"}, {{42, std::nullopt}, {11, std::nullopt}}},
        // A name made of digits comes before the pid if it is found first, or belongs to the same process.
        {{"41"}, {{12, "41"}}},
        {{"5"}, {{5, std::nullopt}}},
        {{"77"}, {{77, "77"}}},
        // Names that are cached from one description do not change the result of the next.
        {{"5", "41", "worker", "clerk"}, {{5, std::nullopt}, {12, "41"}, {10, "worker"}, {42, "clerk"}}},
    };
    std::vector<std::string> errors;
    for (const auto& [descriptions, expected] : rows) {
        Found found;
        const auto selected = ZBProcess::pidsForStringDescriptions(machine, descriptions, &errors);
        for (const auto& process : *selected) {
            EXPECT_EQ(process.description, found.size());
            found.emplace_back(process.pid, process.name);
        }
        EXPECT_EQ(found, expected);
    }
    EXPECT_THAT(errors, ElementsAre());
    const std::vector<std::string> wrong = {"Worker", "-10", "4294967338", "99999999999999999999",
                                            "",       "7",   "work"};
    EXPECT_THAT(*ZBProcess::pidsForStringDescriptions(machine, wrong, &errors), IsEmpty());
    EXPECT_EQ(errors.size(), wrong.size());
    EXPECT_EQ(errors.back(), "Unable to find pid for process matching 'work'");
}

TEST_F(ZBProcessSelectionTest, DescendantsFollowLevelByLevel) {
    for (const auto& [pid, parent] :
         {std::pair{0, 0}, {30, 20}, {1, 0}, {20, 10}, {10, 1}, {21, 10}, {31, 21}})
        machine.process(pid, "any").parent = parent;
    using Pids = std::vector<std::int32_t>;
    const std::pair<Pids, Pids> rows[] = {{{20, 21}, {20, 21, 30, 31}},
                                          {{10, 20}, {10, 20, 30, 21, 31}},
                                          {{0}, {0, 1, 10, 20, 21, 30, 31}},
                                          {{999}, {999}}};
    for (const auto& [pids, family] : rows) EXPECT_EQ(ZBProcess::childPidsForPids(machine, pids), family);
}

TEST_F(ZBProcessSelectionTest, AllProcessesOmitsExcludedAndUnopenable) {
    machine.process(1, "init");
    machine.process(2, "shy").openCode = kKernFailure;
    machine.process(3, "gone").hasRecord = false;
    machine.process(4, "clerk");
    machine.process(5, "baker");
    machine.process(6, "kernel").flags = BsdInfoRecord::kFlagSystem;
    const auto targets = ZBProcess::allProcessesExcludingPids(machine, {1, 77});
    EXPECT_EQ(machine.messages.take(), "task_for_pid: failure\n");
    std::vector<std::int32_t> pids;
    for (const auto& target : *targets) pids.push_back(target->pid());
    EXPECT_THAT(pids, ElementsAre(4, 5, 6));
}

}  // namespace zorbel::test
