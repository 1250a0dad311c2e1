#include "cli/RunDriver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <regex>

#include "cli/CommandLine.h"
#include "support/ScriptedRun.h"
#include "support/TestData.h"

namespace zorbel::test {

using namespace testing;

/// The pids are above the highest pid of Linux, so none is the test's own.
class RunDriverTest : public Test {
  protected:
    RunDriverTest() {
        machine.process(5000001, "baker")
            .maps(0x1000, {.pages = 9, .info = {.user_tag = kMallocTiny, .pages_resident = 1}});
        machine.process(5000002, "miller")
            .maps(0x1000, {.pages = 9, .info = {.user_tag = kStack, .pages_resident = 2}});
        apprentice.parent = 5000001;
        machine.process(5000099, "shy").openCode = kKernFailure;
        machine.process(getpid(), "the-tool").parent = 5000001;
    }

    Outcome zorbel(const std::vector<std::string>& words) { return runOn(machine, words); }

    /// The names of the processes of a report, in order.
    static std::string reported(const Outcome& outcome) {
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        std::string names;
        for (std::size_t at = 0; (at = outcome.out.find("-bit", at)) != std::string::npos; ++at) {
            const std::size_t line = outcome.out.rfind('\n', at) + 1;
            names += outcome.out.substr(line, outcome.out.find(' ', line) - line) + " ";
        }
        return names;
    }

    ScriptedPlatform machine;
    ScriptedProcess& apprentice = machine.process(5000003, "apprentice");
};

TEST_F(RunDriverTest, AcceptsAllWaysToNameTargets) {
    const std::pair<std::vector<std::string>, const char*> rows[] = {
        {{"baker"}, "baker "},
        {{"-p", "miller", "5000001"}, "miller baker "},
        {{"--pid", "5000001", "-p", "baker"}, "baker "},
        {{"-t", "baker"}, "baker apprentice "},  // But not the tool itself.
        {{"-y", "baker", "miller", "-x", "miller", "-x", "nobody"}, "baker "},
        // An excluded process is selected again as a child of a target.
        {{"-t", "baker", "-x", "apprentice"}, "baker apprentice "},
    };
    for (const auto& [words, names] : rows) {
        const Outcome outcome = zorbel(words);
        EXPECT_EQ(reported(outcome), names);
        EXPECT_EQ(outcome.err, "");
    }
}

TEST_F(RunDriverTest, ReportsUnmeasurableTargetsAndContinues) {
    const Outcome outcome = zorbel({"baker", "shy", "nobody", "--pid", "5000098"});
    EXPECT_EQ(reported(outcome), "baker ");
    EXPECT_EQ(outcome.err,
              "Unable to find pid for process matching 'nobody'\n"
              "Unable to analyze process with pid 5000098 (try as root?)\n"
              "task_for_pid: failure\n"
              "Unable to analyze process shy [5000099] (try as root?)\n");
    EXPECT_THAT(outcome.out, HasSubstr("\nErrors were encountered:\n\ttask_for_pid [5000099] failure\n"
                                       "\nDue to errors, summary results may be invalid\n"));
    // With children, messages do not show the name that was given.
    EXPECT_EQ(zorbel({"-t", "baker", "shy"}).err,
              "task_for_pid: failure\nUnable to analyze process with pid 5000099 (try as root?)\n");
}

TEST_F(RunDriverTest, FailsWithoutTargets) {
    const std::string nothing =
        "Unable to find any processes matching the supplied process names or pids (try as root?)\n";
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"nobody"}, "Unable to find pid for process matching 'nobody'\n" + nothing},
        {{"baker", "-x", "baker"}, nothing},
        {{"--pid", "5000098"}, "Unable to analyze process with pid 5000098 (try as root?)\n" + nothing},
        {{"the-tool", "--pid", std::to_string(getpid())}, nothing},
    };
    for (const auto& [words, err] : rows) EXPECT_THAT(zorbel(words), FieldsAre(1, "", err));
    machine.hasProcessList = false;
    EXPECT_THAT(zorbel({"baker"}), FieldsAre(1, "", "Unable to obtain system process list\n" + nothing));
}

TEST_F(RunDriverTest, SkipsIdleExitProcesses) {
    apprentice.dirtyFlags = kProcDirtyTracked | kProcDirtyAllowsIdleExit;
    machine.process(5000004, "busy").dirtyFlags = 7;
    EXPECT_EQ(reported(zorbel({"apprentice", "busy", "baker"})), "baker busy apprentice ");
    EXPECT_EQ(reported(zorbel({"apprentice", "busy", "baker", "-s"})), "baker busy ");
    EXPECT_THAT(zorbel({"-s", "apprentice"}), FieldsAre(0, HasSubstr("Summary Zorbel: 0 B\n"), ""));
}

TEST_F(RunDriverTest, OptionsChooseCategoriesAndColumns) {
    RegionInfoRecord heap{.user_tag = kMallocTiny, .pages_resident = 5, .pages_swapped_out = 2};
    heap.user_wired_count = 3;
    apprentice.maps(0x1000, {.pages = 9, .info = heap})
        .maps(0x10000, {.pages = 9, .info = {.pages_resident = 4}, .path = Name("/a/file")});
    const auto rows = [this](std::vector<std::string> words) {
        words.insert(words.begin(), {"apprentice", "-f", "pages"});
        const std::string out = zorbel(words).out;
        return std::regex_replace(out.substr(std::min(out.find("  Dirty"), out.size())), std::regex(" +"),
                                  " ");
    };
    const std::string heapRow = " 7 pages 0 pages 0 pages 1 MALLOC_TINY\n";
    const std::string dashes = " --- --- --- --- ---\n";
    const std::string title = " Dirty Clean Reclaimable Regions Category\n" + dashes + heapRow;
    const std::string end = dashes + " 7 pages 4 pages 0 pages 2 TOTAL\n";
    EXPECT_THAT(rows({}), StartsWith(title + " 0 pages 4 pages 0 pages 1 mapped file\n" + end));
    for (const char* option : {"-y", "--summary"})
        EXPECT_THAT(rows({option}), StartsWith(title + " 0 pages 4 pages 0 pages 1 Other\n" + end));
    EXPECT_THAT(rows({"--swapped"}),
                StartsWith(" Dirty (Swapped) Clean Reclaimable Regions Category\n --- --- --- --- --- ---\n"
                           " 7 pages 2 pages 0 pages 0 pages 1 MALLOC_TINY\n"));
    EXPECT_THAT(rows({"--wired"}),
                StartsWith(" Dirty Clean Reclaimable (Wired) Regions Category\n --- --- --- --- --- ---\n"
                           " 7 pages 0 pages 0 pages 3 pages 1 MALLOC_TINY\n"));
    EXPECT_EQ(rows({"-w"}), rows({"--swapped", "--wired"}));
}

TEST_F(RunDriverTest, UnwritableDocumentKeepsTheText) {
    const std::string text = zorbel({"baker"}).out;
    const std::pair<std::string, int> rows[] = {
        {"/dev/full", ENOSPC}, {"/", EISDIR}, {"/nonexistent/x", ENOENT}, {"", ENOENT}};
    for (const auto& [path, error] : rows)
        EXPECT_THAT(zorbel({"baker", "-j", path}),
                    FieldsAre(0, text,
                              "Unable to serialize/write JSON data due to error: " + path + ": " +
                                  std::strerror(error) + "\n"));
}

TEST_F(RunDriverTest, SetsBreakdownModeBeforeMeasuring) {
    apprentice.maps(
        0x1000,
        {.pages = 9, .info = {.user_tag = kStack, .pages_resident = 5}, .purgeable = kPurgeableNonVolatile});
    EXPECT_THAT(zorbel({"apprentice"}).out, Not(HasSubstr("purgeable")));
    const Outcome on = zorbel({"--physZorbel", "apprentice"});
    EXPECT_THAT(on.out, HasSubstr("    0 B      20 KB          0 B          1    stack (purgeable "));
    EXPECT_THAT(on.out, HasSubstr("\nPhysical Zorbel Breakdown: Enabled\n"));
    // If the system refuses: one message when it is set, then one for each use.
    machine.sysctlError = EPERM;
    const std::string refusal = " physical zorbel data collection: Operation not permitted\n";
    const std::string unread = "Unable to retrieve status of" + refusal;
    EXPECT_THAT(zorbel({"--physZorbel", "apprentice"}),
                FieldsAre(0, Not(HasSubstr("Breakdown")),
                          "Unable to configure" + refusal + unread + unread + unread));
}

TEST_F(RunDriverTest, InterruptStopsGatheringAndStillReports) {
    machine.process(5000004, "late").maps(0x1000, {.info = {.pages_resident = 1}}).beforeReading = [this] {
        kill(getpid(), SIGINT);
        while (!machine.messages.isAny()) usleep(1000);  // Until the interrupt has been handled.
    };
    const Outcome outcome = zorbel({"late"});
    EXPECT_EQ(outcome.err, "Exiting early due to SIGINT\n");
    EXPECT_THAT(outcome.out, HasSubstr("late [5000004]: 64-bit\tZorbel: 4096 B"));
    // Afterwards an interrupt has its usual effect.
    EXPECT_EXIT(raise(SIGINT), KilledBySignal(SIGINT), "");
}

TEST_F(RunDriverTest, LargePidIsTruncatedWithAMessage) {
    const Outcome outcome = zorbel({"--pid", "4299967297"});
    EXPECT_EQ(reported(outcome), "baker ");
    EXPECT_EQ(outcome.err, "--pid 4299967297 does not fit into 32 bits and is taken for 5000001\n");
}

TEST_F(RunDriverTest, MeasuresCorpseThroughItsTask) {
    ScriptedProcess& corpse = machine.process(5000009, "unseen");
    corpse.maps(0x1000, {.pages = 9, .info = {.user_tag = kStack, .pages_resident = 5}})
        .maps(0x1'8000'0000, {.pages = 1, .info = {.pages_resident = 1}, .path = Name("/a/file")});
    corpse.charges = {.ri_phys_zorbel = 4096};
    corpse.hasRecord = false;  // The system no longer has it.
    machine.handedOver = {5000009};
    const std::vector<std::string> words = {"--corpsePid", "5000001", "--corpseName", "Foo"};
    const auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), words.begin(), words.end());
        return zorbel(more);
    };
    const Outcome outcome = with({"--corpseProcFlags=4", "-v", "--corpseDirtyFlags", "0"});
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, HasSubstr("\nFoo [5000001] (corpse): 64-bit\tZorbel: 20 KB "));
    EXPECT_THAT(outcome.out, HasSubstr("   unused varnel shared cache area \n"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("Auxiliary data")));
    // The system bit does not make it the kernel. Without the 64-bit flag it is a 32-bit process.
    const Outcome narrow = with({"--corpseProcFlags", "200", "-v"});
    EXPECT_THAT(narrow.out, HasSubstr("\nFoo [5000001] (corpse): 32-bit\tZorbel: 20 KB "));
    EXPECT_THAT(narrow.out, HasSubstr("   mapped file \n"));
    // The live process with that pid is left out; others are not.
    EXPECT_EQ(reported(with({"baker", "miller"})), "Foo miller ");
    if (geteuid() == 0) {
        EXPECT_EQ(reported(with({"-a"})), "Foo miller apprentice ");
    }
    EXPECT_THAT(with({"-s", "--corpseDirtyFlags", "3"}).out, HasSubstr("Summary Zorbel: 0 B"));
    EXPECT_EQ(reported(with({"-s", "--corpseDirtyFlags", "7"})), "Foo ");
    corpse.lookupCode = kMachSendInvalidDest;
    corpse.shortRecordError = ESRCH;  // A corpse can't exit during the walk.
    EXPECT_THAT(with({}).out, HasSubstr("No results gathered.\n\tFoo [5000001] (corpse): invalid dest"));
}

TEST_F(RunDriverTest, MissingCorpseEndsTheRun) {
    const std::string usage = testData("usage-of-corpses.txt");
    const std::vector<std::string> rows[] = {{"--corpsePid=1"},
                                             {"--corpseName=Foo"},
                                             {"--corpsePid=0", "--corpseName=Foo", "baker"},
                                             {"--corpsePid=-1", "--corpseName=Foo"},
                                             {"--corpsePid=4294967297", "--corpseName=Foo"},
                                             {"--corpseDirtyFlags", "1"}};
    for (const auto& words : rows)
        EXPECT_THAT(zorbel(words), FieldsAre(1, usage, "Invalid arguments for corpse mode\n"));
    const auto lookUp = [&] { return zorbel({"--corpsePid=1", "--corpseName=Foo", "baker"}); };
    const std::string failure = "Failed to retrieve corpse port\n";
    for (const TaskName task : {kTaskNull, kTaskDead}) {
        machine.handedOver = {task, 5000001};
        EXPECT_THAT(lookUp(), FieldsAre(1, usage, failure));
    }
    machine.handedOver = {};
    EXPECT_THAT(lookUp(), FieldsAre(1, usage, failure));
    machine.handedOver = {5000002};
    EXPECT_EQ(reported(lookUp()), "Foo baker ");
    machine.handedOverCode = kKernFailure;
    EXPECT_THAT(lookUp(), FieldsAre(1, usage, failure));
}

static CommandLine parsed(const std::vector<std::string>& words) {
    CommandLine commandLine;
    RecordedDiagnostics messages;
    EXPECT_EQ(
        withArguments(words, [&](auto... args) { return parseCommandLine(args..., messages, commandLine); }),
        std::nullopt);
    return commandLine;
}

TEST(CommandLineTest, AcceptsShortAndLongOptions) {
    using enum TargetArgument::Kind;
    for (const auto& words :
         {std::vector<std::string>{"-atsyw", "-j", "a", "-jb", "-f", "pages", "-px", "-x", "y"},
          {"--all", "--targetChildren", "--skip", "--summary", "--wide", "--json=a", "--json", "b",
           "--format", "pages", "--proc", "x", "--exclude", "y"}}) {
        const CommandLine all = parsed(words);
        const RunSettings& asked = all.settings;
        EXPECT_TRUE(asked.targetAll && asked.targetChildren && asked.skipIdleExitClean && asked.summarize);
        EXPECT_EQ(asked.outputOptions, kShowSwapped | kShowWired);
        EXPECT_EQ(asked.jsonPath, "b");
        EXPECT_EQ(asked.summaryFormat, SummaryFormat::kPages);
        EXPECT_THAT(all.targets, ElementsAre(FieldsAre(kDescription, "x", _)));
        EXPECT_THAT(all.excludeDescriptions, ElementsAre("y"));
    }
    const RunSettings corpse = parsed({"--corpseDirtyFlags", "10"}).settings;
    EXPECT_TRUE(corpse.corpseMode && corpse.corpseDirtyFlags == 0x10);
    EXPECT_EQ(parsed({"-f", "bytes", "-f", "formatted"}).settings.summaryFormat, SummaryFormat::kFormatted);
    EXPECT_EQ(parsed({"--wired"}).settings.outputOptions, kShowWired);
    EXPECT_THAT(parsed({"mill", "-p", "baker", "--pid", "12abc", "-w", "--proc", "cook", "--", "-p"}).targets,
                ElementsAre(FieldsAre(kFileOrDescription, "mill", _), FieldsAre(kDescription, "baker", _),
                            FieldsAre(kPid, _, 12), FieldsAre(kDescription, "cook", _),
                            FieldsAre(kFileOrDescription, "-p", _)));
}

TEST(CommandLineTest, FirstErrorEndsTheRun) {
    ScriptedPlatform machine;
    const Outcome help = runOn(machine, {"nobody", "--help", "-f", "bad"});
    EXPECT_THAT(help, FieldsAre(0, testData("usage.txt"), ""));
    const std::string badFormat =
        "Unrecognized argument to -f / --format.\n\nAccepted arguments: 'bytes', 'formatted', 'pages'.\n";
    const auto badPid = [](const std::string& text) {
        return "'" + text +
               "' is not a valid integer for --pid.\n\n"
               "Use -p / --proc if you meant to specify a process name.\n";
    };
    const std::tuple<std::vector<std::string>, std::string, std::string> rows[] = {
        {{"-f", "Bytes", "-h"}, "", badFormat},
        {{"--pid", "abc", "-f", "bad"}, "", badPid("abc")},
        {{"--pid", "0x10"}, "", badPid("0x10")},
        {{"-q", "-f", "bad"}, help.out, "zorbel: invalid option -- 'q'\n"},
        {{"--json"}, help.out, "zorbel: option '--json' requires an argument\n"},
        {{"-x", "baker"}, help.out, "Must specify at least one process or memgraph\n"},
    };
    for (const auto& [words, out, err] : rows) EXPECT_THAT(runOn(machine, words), FieldsAre(1, out, err));
}

}  // namespace zorbel::test
