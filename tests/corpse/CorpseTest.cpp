// The parts of the handler of core dumps: its arguments, the process, and the report's files.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "corpse/CorpseArguments.h"
#include "corpse/CorpseHandler.h"
#include "corpse/DyingProcess.h"
#include "corpse/ReportDirectory.h"
#include "corpse/ReportFile.h"
#include "platform/Records.h"
#include "support/ScriptedRun.h"
#include "support/TestData.h"

namespace zorbel::test {
namespace {

using namespace testing;
using std::chrono::steady_clock;
namespace fs = std::filesystem;

/// Parsed arguments, and the words of the next handler.
struct Parsed {
    std::optional<int> status;
    CorpseSettings settings;
    Crash crash;
    std::string then;
};

Parsed parse(const std::vector<std::string>& words) {
    Parsed parsed;
    RecordedDiagnostics messages;
    withArguments(words, [&](int argc, char** argv) {
        parsed.status = parseCorpseArguments(argc, argv, messages, parsed.settings, parsed.crash);
        for (char* const* word = parsed.settings.then; word != nullptr && *word != nullptr; ++word)
            parsed.then += std::string(*word) + " ";
    });
    EXPECT_EQ(messages.take(), parsed.status == 1 ? "wrong arguments; see --help\n" : "");
    return parsed;
}

TEST(CorpseArgumentsTest, OptionsAndCrash) {
    const Parsed plain = parse({"42", "baker", "11", "1600000000"});
    EXPECT_EQ(plain.status, std::nullopt);
    EXPECT_THAT(plain.settings, FieldsAre("/var/lib/zorbel/corpses", 100U, 100U, 60U, "", nullptr));
    EXPECT_THAT(plain.crash, FieldsAre(42, "baker", 11U, 1600000000));
    const Parsed all =
        parse({"--directory", "/d", "--keep=0", "--keepMiB", "4294967295", "--timeout=7", "--zorbel", "/z",
               "2147483647", "a\x1B b", "0", "-1", "--then", "/c", "--keep", "-h"});
    EXPECT_EQ(all.status, std::nullopt);
    EXPECT_THAT(all.settings, FieldsAre("/d", 0U, 4294967295U, 7U, "/z", NotNull()));
    EXPECT_THAT(all.crash, FieldsAre(2147483647, "a\\x1B b", 0U, -1));
    EXPECT_EQ(all.then, "/c --keep -h ");
    // Crashed programs choose their names, empty ones too.
    for (const char* name : {"--then", "-h", "--help", "--keep=1", "--", "", "-", "2147483648"}) {
        const Parsed parsed = parse({"42", name, "11", "0", "--then", "/c"});
        EXPECT_EQ(parsed.status, std::nullopt) << name;
        EXPECT_EQ(parsed.crash.threadName, name);
        EXPECT_EQ(parsed.then, "/c ");
    }
    internal::CaptureStdout();
    EXPECT_EQ(parse({"--help"}).status, 0);
    EXPECT_THAT(internal::GetCapturedStdout(), HasSubstr("\nUsage: zorbel-corpse-handler "));
}

TEST(CorpseArgumentsTest, ErrorsKeepTheNextHandler) {
    for (std::vector<std::string> words : {std::vector<std::string>{"x", "x", "11", "0"},
                                           {"0", "x", "11", "0"},
                                           {"--", "-1", "x", "11", "0"},
                                           {"2147483648", "x", "11", "0"},
                                           {"1", "x", "-1", "0"},
                                           {"1", "x", "11", "0 "},
                                           {"1", "x", "11", ""},
                                           {"--keep", "x", "1", "x", "11", "0"},
                                           {"--keep", "-1", "1", "x", "11", "0"},
                                           {"--keepMiB", "4294967296", "1", "x", "11", "0"},
                                           {"--timeout", "1s", "1", "x", "11", "0"},
                                           {"--timeout", "x", "--timeout", "1", "1", "x", "11", "0"}}) {
        words.insert(words.end(), {"--then", "/c", "d"});
        const Parsed parsed = parse(words);
        EXPECT_EQ(parsed.status, 1) << words[0] << words[1];
        EXPECT_EQ(parsed.then, "/c d ") << words[0] << words[1];
    }
    for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                  {"1", "x", "11"},
                                                  {"1", "x", "11", "0", "--then"},
                                                  {"1", "x", "11", "0", "then", "/c"},
                                                  {"-1", "x", "11", "0", "--then", "/c", "d"}}) {
        const Parsed parsed = parse(words);
        EXPECT_EQ(parsed.status, 1);
        EXPECT_EQ(parsed.settings.then, nullptr);
    }
}

TEST(CorpseArgumentsTest, HeadlineNamesProgramThreadSignalAndTime) {
    EXPECT_EQ(headlineOf({42, "oven", 11, 1600000000}, "baker"),
              "baker [42], thread oven, was ended by signal 11 (Segmentation fault) at 2020-09-13 12:26:40 "
              "UTC\n\n");
    EXPECT_EQ(headlineOf({42, "oven", 99, 0}, ""),
              " [42], thread oven, was ended by signal 99 at 1970-01-01 00:00:00 UTC\n\n");
}

/// A folder for processes and reports.
class CorpsePartsTest : public Test {
  protected:
    ~CorpsePartsTest() override { fs::remove_all(_path); }

    void put(const std::string& file, const std::string& text, int hoursAgo = 0) const {
        fs::create_directories(fs::path(_path + "/" + file).parent_path());
        std::ofstream(_path + "/" + file) << text;
        fs::last_write_time(_path + "/" + file,
                            fs::file_time_type::clock::now() - std::chrono::hours(hoursAgo));
    }
    Result<DyingProcess> process() const { return DyingProcess::open(42, {_path, _path}); }
    /// The names in a folder, in order.
    std::vector<std::string> files(const std::string& folder) const {
        std::vector<std::string> names;
        for (const auto& file : fs::directory_iterator(_path + "/" + folder))
            names.push_back(file.path().filename());
        std::ranges::sort(names);
        return names;
    }

    const std::string _path = mkdtemp(std::string("/tmp/zorbel-unit-XXXXXX").data());
};

TEST_F(CorpsePartsTest, ProcessThatIsBeingDumped) {
    const std::string dumping = "Name:\tx\nCoreDumping:\t1\n";
    const auto stat = [](char state, int terminal, std::uint64_t stack) {
        return "42 (x) " + std::string(1, state) + " 1 1 1 " + std::to_string(terminal) +
               " -1 4 0 0 0 0 0 0 0 0 20 0 1 0 7 8 9 10 11 12 " + std::to_string(stack) + " 0\n";
    };
    EXPECT_EQ(process().error().description, "process 42: No such file or directory");
    for (const char* status : {"Name:\tCoreDumping:\t1\n", "Name:\tx\nCoreDumping:\t0\n", ""}) {
        put("42/status", status);
        EXPECT_EQ(process().error().description, "process 42: No such process") << status;
    }
    put("42/status", dumping);
    auto opened = process();
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(opened->programName(), "");
    EXPECT_EQ(opened->flags(), CorpseFlags::k64Bit);  // Nothing is known.
    const std::tuple<std::string, std::string, std::uint32_t> rows[] = {
        {"/srv/ba ker\n (deleted)", stat('S', 34816, 140724475097168),
         CorpseFlags::k64Bit | CorpseFlags::kControllingTerminal},
        {"/srv/ba ker\n", stat('S', 0, 140724475097168), CorpseFlags::k64Bit},
        {"ba ker\n (deleted)", stat('S', 34816, 4290000000), CorpseFlags::kControllingTerminal},
    };
    for (const auto& [exe, text, flags] : rows) {
        fs::remove(_path + "/42/exe");
        fs::create_symlink(exe, _path + "/42/exe");
        put("42/stat", text);
        EXPECT_EQ(opened->programName(), "ba ker\\x0A");
        EXPECT_EQ(opened->flags(), flags);
    }
    // The first thread has ended before: another one shows what there is.
    fs::remove(_path + "/42/exe");
    put("42/status", "Name:\tx\nState:\tZ (zombie)\n");
    put("42/stat", stat('Z', 0, 0));
    EXPECT_FALSE(process().has_value());
    put("42/task/43/status", dumping);
    put("42/task/43/stat", stat('S', 34816, 4290000000));
    fs::create_symlink("/srv/miller", _path + "/42/task/43/exe");
    opened = process();
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(opened->programName(), "miller");
    EXPECT_EQ(opened->flags(), CorpseFlags::kControllingTerminal);
}

TEST_F(CorpsePartsTest, FilesOfReports) {
    const auto soon = [](int milliseconds) {
        return steady_clock::now() + std::chrono::milliseconds(milliseconds);
    };
    struct Filled {
        std::string error;
        std::string text;
        std::string document;
    };
    /// Fills two files with what a writer sends, publishes them, and keeps them if told to.
    const auto fill = [&](const std::string& text, bool ends, std::uint64_t mostBytes, bool keeps) {
        ReportFile first(_path + "/a.txt");
        ReportFile second(_path + "/a.json");
        EXPECT_TRUE(first.open() && second.open() && first.append("head "));
        EXPECT_THAT(files(""), IsSupersetOf({"a.json.part", "a.txt.part"}));
        EXPECT_EQ(fs::status(_path + "/a.txt.part").permissions(), fs::perms(0600));
        std::thread writer([&] {
            for (const int sink : {first.sink(), second.sink()}) {
                std::string_view left = text;
                for (ssize_t count = 0;
                     (count = write(sink, left.data(), std::min<std::size_t>(left.size(), 5000))) > 0;)
                    left.remove_prefix(static_cast<std::size_t>(count));
            }
            if (ends) first.closeSink(), second.closeSink();
        });
        const auto filled = fillFromPipes(first, second, soon(ends ? 60000 : 50), mostBytes);
        first.closeSource(), second.closeSource();
        writer.join();
        if (filled) {
            EXPECT_TRUE(first.publish() && second.publish());
            EXPECT_EQ(first.size(), text.size() + 5);
        }
        if (keeps) first.keep(), second.keep();
        return Filled{filled ? "" : filled.error().description, contentsOf(_path + "/a.txt"),
                      contentsOf(_path + "/a.json")};
    };
    const std::string large(300000, 'x');
    EXPECT_THAT(fill(large, true, 600005, false), FieldsAre("", "head " + large, large));
    EXPECT_THAT(files(""), IsEmpty());  // Removed, since nobody kept them.
    EXPECT_THAT(fill("", true, 5, true), FieldsAre("", "head ", ""));
    EXPECT_THAT(files(""), ElementsAre("a.json", "a.txt"));
    EXPECT_THAT(fill("new ", true, 13, true), FieldsAre("", "head new ", "new "));
    fs::remove(_path + "/a.txt"), fs::remove(_path + "/a.json");
    EXPECT_EQ(fill("four", true, 12, false).error, "the report is larger than a tenth of --keepMiB");
    EXPECT_EQ(fill("slow", false, 99, false).error, "the report takes too long");
    EXPECT_THAT(files(""), IsEmpty());
}

TEST_F(CorpsePartsTest, NothingInTheWayOfAReportIsTouched) {
    put("victim", "mine");
    fs::create_symlink(_path + "/victim", _path + "/a.part");
    put("b.part", "mine");
    fs::create_directory(_path + "/c.part");
    for (const std::string name : {"/a", "/b", "/c", "/none/d"}) {
        ReportFile file(_path + name);
        EXPECT_EQ(file.open().error().code, name == "/none/d" ? ENOENT : EEXIST) << name;
    }
    EXPECT_THAT(files(""), ElementsAre("a.part", "b.part", "c.part", "victim"));
    EXPECT_EQ(contentsOf(_path + "/victim") + contentsOf(_path + "/b.part"), "minemine");
    ReportFile file(_path + "/d");
    ASSERT_TRUE(file.open());
    fs::create_directory(_path + "/d");
    EXPECT_EQ(file.publish().error().code, EISDIR);
}

TEST_F(CorpsePartsTest, ReportsHaveNamesThatAreFitForFiles) {
    const ReportDirectory directory(_path + "/new/r");
    EXPECT_TRUE(directory.make() && directory.make());
    EXPECT_EQ(fs::status(_path + "/new/r").permissions(), fs::perms(0700));
    put("file", "");
    EXPECT_EQ(ReportDirectory(_path + "/file/r").make().error().code, ENOTDIR);
    const std::pair<std::string, std::string> rows[] = {
        {"baker", "baker"},
        {"", ""},
        {"../../etc/x", "______etc_x"},
        {".part", "_part"},
        {"a b\n\xC3\xA4", "a_b___"},
        {"x.txt", "x_txt"},
        {std::string("\0-_+", 4), "_-_+"},
        {std::string(99, 'x'), std::string(64, 'x')},
    };
    for (const auto& [program, name] : rows)
        EXPECT_EQ(directory.pathFor(1600000000, 42, program), _path + "/new/r/20200913T122640Z-42-" + name);
}

TEST_F(CorpsePartsTest, OldestReportsAreRemoved) {
    const ReportDirectory directory(_path + "/r");
    const std::string day = "20200101T000000Z-";
    /// Lays four reports of 10 bytes down, of which 3 is the new one, prunes, and returns what is left of
    /// them.
    const auto prune = [&](std::size_t reports, std::uint64_t bytes) {
        fs::remove_all(_path + "/r");
        put("r/" + day + "1-x.txt", "12345", 2), put("r/" + day + "1-x.json", "12345", 1);
        put("r/" + day + "2-x.txt", "12345", 3), put("r/" + day + "2-x.json", "12345", 3);
        put("r/" + day + "3-x.txt", "1234567890", 99);
        put("r/20990101T000000Z-4-x.txt", "1234567890", 4);
        // None of these is a report, or it may still be written to.
        put("r/20200101T000000Z", "", 999), put("r/2020x101T000000Z-x-x.txt", "", 999),
            put("r/mine", "", 999);
        put("r/" + day + "5-x.txt.part", "12345", 23), put("r/" + day + "6-x.txt.part", "12345", 25);
        directory.prune(reports, bytes, _path + "/r/" + day + "3-x");
        auto left = files("r");
        std::string pids;
        for (const std::string& name : left)
            if (name.ends_with("-x.txt") || name.ends_with("-x.json")) pids += name.substr(17, 1) + " ";
        EXPECT_THAT(left, IsSupersetOf({std::string("20200101T000000Z"), std::string("mine"),
                                        std::string("2020x101T000000Z-x-x.txt"), day + "5-x.txt.part"}));
        EXPECT_THAT(left, Not(Contains(day + "6-x.txt.part")));
        return pids;
    };
    const std::tuple<std::size_t, std::uint64_t, std::string> rows[] = {
        {4, 40, "1 1 2 2 3 x 4 "}, {3, 40, "1 1 2 2 3 x "}, {2, 40, "1 1 3 x "}, {0, 40, "3 x "},
        {4, 39, "1 1 2 2 3 x "},   {9, 20, "1 1 3 x "},     {9, 0, "3 x "},
    };
    for (const auto& [reports, bytes, left] : rows)
        EXPECT_EQ(prune(reports, bytes), left) << reports << ' ' << bytes;
}

}  // namespace
}  // namespace zorbel::test
