// The JSON report and its schema.

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"

namespace zorbel::e2e {
namespace {

/// Checks documents with an independent validator.
Outcome validate(Words paths) {
    paths.insert(paths.begin(), SOURCE_DIR "/docs/report.schema.json");
    return runZorbel(paths, {SOURCE_DIR "/tests/validate-json"});
}

TEST(JsonTest, ReportsMatchTheSchema) {
    if (runZorbel({"-c", "import jsonschema"}, {"python3"}).status != 0)
        GTEST_SKIP() << "takes python3-jsonschema";
    const std::filesystem::path directory = testing::TempDir() + "json-" + std::to_string(getpid());
    std::filesystem::create_directory(directory);
    const Region memory(7, MAP_SHARED, newFile(7));
    const std::string shell = directory / "evil\x1B\"\\\n\xFF";
    std::filesystem::copy_file("/bin/sh", shell);
    const Fixture first({[&] { memory.touch(0, 7); }});
    const Fixture second({[&] { memory.touch(0, 7); }});
    const Fixture hostile({[&] { execl(shell.c_str(), "sh", "-c", "kill -STOP $$", nullptr); }});
    Fixture shade;
    shade.kill(false);

    Words all;
    for (const pid_t pid : {first.pid(), second.pid(), hostile.pid(), shade.pid()})
        all.push_back(std::to_string(pid));
    const std::vector<Words> rows = {
        all, {"--physZorbel", all[2]}, {"-s", "-y", all[0], "--pid", "1"}, {geteuid() == 0 ? "-a" : all[0]}};
    Words documents;
    for (Words arguments : rows) {
        const Outcome text = runZorbel(arguments);
        documents.push_back(directory / (std::to_string(documents.size()) + ".json"));
        arguments.insert(arguments.end(), {"-j", documents.back()});
        const Outcome both = runZorbel(arguments);
        EXPECT_EQ(both.status, 0);
        if (arguments[0] == "-a") continue;  // Other processes start and end.
        EXPECT_EQ(both.error, text.error);
        EXPECT_EQ(both.output, text.output);
    }
    EXPECT_EQ(validate(documents).output, "");
    EXPECT_EQ(validate(documents).status, 0);
    std::ofstream(documents[0]) << R"({"processes": [{}]})";
    EXPECT_THAT(validate(documents).output, testing::HasSubstr("'pid' is a required property"));
    std::filesystem::remove_all(directory);
}

TEST(JsonTest, ProcessesWithTheSameNameAreToldApart) {
    const std::string script = testing::TempDir() + "nightly-backup-of-everything";
    std::ofstream(script) << "#!/bin/sh\nkill -STOP $$\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    const Fixture fixture(
        {[] {}, [&] { execl(script.c_str(), script.c_str(), "two  words", "\x1B[m", nullptr); }});
    fixture.next();
    const std::string path = testing::TempDir() + "details-" + std::to_string(getpid()) + ".json";
    // By the name of the script, of which the kernel keeps 15 bytes; the executable is the shell.
    const Outcome outcome = runZorbel({"nightly-backup-of-everything", "-j", path});
    EXPECT_EQ(outcome.status, 0) << outcome.error;
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_THAT(text, testing::HasSubstr("\"pid\":" + std::to_string(fixture.pid()) + ","));
    EXPECT_THAT(text, testing::HasSubstr("\"parent\":" + std::to_string(getpid()) + ","));
    EXPECT_THAT(text, testing::HasSubstr("\"uid\":" + std::to_string(getuid()) + ","));
    EXPECT_THAT(text, testing::HasSubstr(R"("command":"/bin/sh )" + script + R"( two  words \\x1B[m")"));
    EXPECT_THAT(text, testing::ContainsRegex("\"started\":" + std::to_string(time(nullptr) / 1000)));
    std::filesystem::remove(path);
    std::filesystem::remove(script);
}

}  // namespace
}  // namespace zorbel::e2e
