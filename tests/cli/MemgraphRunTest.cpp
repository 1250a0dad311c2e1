// Runs on memory graphs.

#include <fstream>

#include "support/ScriptedRun.h"
#include "support/TestData.h"

namespace zorbel::test {

using namespace testing;

static const std::string kGraphs = SOURCE_DIR "/tests/data/graphs/";

class MemgraphRunTest : public Test {
  protected:
    MemgraphRunTest() { machine.process(5000001, "baker").maps(0x1000, {.info = {.pages_resident = 1}}); }
    ~MemgraphRunTest() override {
        for (const std::string& path : _files) unlink(path.c_str());
    }

    std::string file(const std::string& name, const std::string& contents) {
        _files.push_back(name);
        std::ofstream(name) << contents;
        return name;
    }

    /// A graph from a machine with that description.
    std::string graphOf(const std::string& description, bool breaksDown = false) {
        std::string text = testData("graphs/arm64.memgraph");
        const std::string mode = "\"breakDownPhysZorbel\": ";
        text.replace(text.find("Foo on ARM64, 2 processors"), 26, description);
        if (breaksDown) text.replace(text.find(mode), mode.size() + 5, mode + "true");
        return file("graph-" + std::to_string(_files.size()), text);
    }

    Outcome zorbel(const std::vector<std::string>& words) { return runOn(machine, words); }

    ScriptedPlatform machine;

  private:
    std::vector<std::string> _files;
};

TEST_F(MemgraphRunTest, ReportsOnAllKindsOfMachines) {
    std::string reports;
    for (const std::string name : {"x86-64", "x86", "arm64", "arm64-32", "arm"}) {
        const Outcome outcome = zorbel({"-v", "-w", "-f", "bytes", kGraphs + name + ".memgraph"});
        EXPECT_THAT(outcome, FieldsAre(0, _, ""));
        reports += outcome.out;
    }
    EXPECT_EQ(reports, testData("graphs/reports.txt"));
}

TEST_F(MemgraphRunTest, SharedPartsCountForTheirObjects) {
    const Outcome outcome = zorbel({"-w", "-f", "pages", kGraphs + "shared.memgraph"});
    EXPECT_THAT(outcome.out, HasSubstr("\nBar [43] (memgraph): 64-bit\tZorbel: 80 pages "));
    // Of 32 dirty and 5 swapped pages, 10 and 2 are the region's own; 44 count for what it shares.
    EXPECT_THAT(outcome.out, HasSubstr("   56 pages       6 pages       0 pages       0 pages       0 pages"
                                       "          2    untagged (\"VM_ALLOCATE\")\n"
                                       "   17 pages       1 pages       0 pages       0 pages       0 pages"
                                       "          1    memfd\n"
                                       "    7 pages       0 pages      23 pages       0 pages       0 pages"
                                       "          2    mapped file\n"));
}

TEST_F(MemgraphRunTest, DescriptionSelectsTheKindOfMachine) {
    const auto isSplit = [&](const std::string& description) {
        const Outcome outcome = zorbel({graphOf(description)});
        EXPECT_THAT(outcome, FieldsAre(0, HasSubstr("\nFoo [42] (memgraph): 64-bit\tZorbel: 6"), ""));
        const auto has = [&](const char* name) { return outcome.out.find(name) != std::string::npos; };
        const bool hasPieces = has("    unused varnel shared cache area\n");
        EXPECT_NE(hasPieces, has("    __LINKEDIT /usr/lib/liba.dylib\n")) << outcome.out;
        return hasPieces;
    };
    EXPECT_TRUE(isSplit("ARM64"));
    EXPECT_TRUE(isSplit("ARM64_32 ARM64-32"));  // The first one counts.
    EXPECT_TRUE(isSplit("x ARM64-3"));
    for (const char* other : {"ARM64-32", "X86-64 ARM64", "X86 ARM64", "ARM", "Linux on ARM64"})
        EXPECT_FALSE(isSplit(other)) << other;
    const std::string unknown = graphOf("arm64");
    EXPECT_THAT(zorbel({unknown}), FieldsAre(1, "",
                                             "Unable to determine platform architecture of target\n"
                                             "Error opening memgraph " +
                                                 unknown +
                                                 ": Unable to determine platform from memory graph process "
                                                 "description\n"));
}

TEST_F(MemgraphRunTest, ReportsGraphsAndProcessesTogether) {
    const std::string sample = kGraphs + "arm.memgraph";
    const std::string out = zorbel({sample, "baker", sample}).out;
    EXPECT_THAT(out, HasSubstr("\nFoo [42] (memgraph): 32-bit\tZorbel: "));
    EXPECT_THAT(out, HasSubstr("\nbaker [5000001]: 64-bit\tZorbel: 4096 B"));
    const std::string title = "Foo [42]";  // Only once, although it is given twice.
    EXPECT_EQ(out.find(title, out.find(title) + 1), std::string::npos);
    EXPECT_THAT(zorbel({"-s", "-t", "-x", "42", sample}), FieldsAre(0, HasSubstr(title), ""));
    // With -a, graphs are not reported, but they must be valid.
    if (geteuid() == 0) {
        EXPECT_THAT(zorbel({"-a", sample}), FieldsAre(0, Not(HasSubstr(title)), ""));
    }
    EXPECT_EQ(zorbel({"-a", file("broken", "{}")}).status, 1);
}

TEST_F(MemgraphRunTest, OtherFilesMayNameAProcess) {
    EXPECT_THAT(zorbel({file("baker", "")}), FieldsAre(0, HasSubstr("\nbaker [5000001]: 64-bit"), ""));
    const std::string other = file("other", "");
    EXPECT_THAT(
        zorbel({other}),
        FieldsAre(1, "", "Error opening memgraph other: not JSON: incomplete JSON (line 1, column 1)\n"));
    EXPECT_THAT(zorbel({"/"}), FieldsAre(1, "", "Error opening memgraph /: Is a directory\n"));
    machine.saysWhatIsWrongWithGraphs = false;
    EXPECT_THAT(
        zorbel({other}),
        FieldsAre(1, "",
                  "Error opening memgraph other: memgraph initialization failed with unknown error\n"));
}

TEST_F(MemgraphRunTest, RejectsGraphsOfDifferentModes) {
    const std::string plain = graphOf("ARM64");
    const std::string broken = graphOf("ARM64", true);
    const std::string mode = "\nPhysical Zorbel Breakdown: Enabled\n";
    const std::string conflict =
        "Memgraph was gathered with an analysis mode that conflicts with other memgraphs or command line "
        "arguments: ";
    EXPECT_THAT(zorbel({plain}).out, Not(HasSubstr(mode)));
    EXPECT_THAT(zorbel({plain, broken}), FieldsAre(1, "", conflict + broken + "\n"));
    EXPECT_THAT(zorbel({broken, plain}), FieldsAre(1, "", conflict + plain + "\n"));
    EXPECT_THAT(zorbel({"--physZorbel", plain}), FieldsAre(1, "", conflict + plain + "\n"));
    EXPECT_THAT(zorbel({"--physZorbel", broken}), FieldsAre(0, HasSubstr(mode), ""));
    machine.breakDownMode = 0;
    EXPECT_THAT(zorbel({broken}), FieldsAre(0, HasSubstr(mode), ""));
}

}  // namespace zorbel::test
