// Files of memory graphs: what is read, and what is rejected.

#include "memgraph/MemoryGraph.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include "support/TestData.h"

namespace zorbel::test {
namespace {

using namespace testing;

const std::string kSample = testData("graphs/arm.memgraph");

/// The graph after reading and writing it again, or the error if it can't be read.
std::string rewritten(std::string_view contents) {
    const auto graph = parseMemoryGraph(contents);
    if (!graph) return graph.error().description;
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* file = open_memstream(&text, &size);
    writeMemoryGraph(file, *graph);
    std::fclose(file);
    const std::string result(text, size);
    std::free(text);
    return result;
}

/// The sample with one text replaced, where it occurs first.
std::string sampleWith(const std::string& text, const std::string& other) {
    std::string changed = kSample;
    const std::size_t at = changed.find(text);
    EXPECT_NE(at, std::string::npos) << text;
    return changed.replace(at, text.size(), other);
}

std::string withoutBlanks(std::string text) {
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
    return text;
}

TEST(MemoryGraphTest, RoundTripKeepsTheGraph) {
    const std::string text = rewritten(kSample);
    EXPECT_EQ(withoutBlanks(text), withoutBlanks(kSample));
    EXPECT_EQ(rewritten(text), text);
    for (const char* file : {"arm.memgraph.gz", "arm-in-two.memgraph.gz", "arm.memgraph.zst"})
        EXPECT_EQ(rewritten(testData(std::string("graphs/") + file)), text);
    // Members of later versions, and any order.
    EXPECT_EQ(rewritten(sampleWith("\"pid\": 42", "\"a\": [{\"pid\": 1}, [2]], \"pid\": 42, \"b\": null")),
              text);
    EXPECT_EQ(rewritten(sampleWith("\"prot\": 5, \"maxProt\": 7",
                                   "\"maxProt\": 7, \"new\": {\"prot\": [6]}, \"prot\": 5")),
              text);
    // Texts become printable. The parser delivers escaped ones in parts.
    EXPECT_THAT(rewritten(sampleWith("\"Foo\"", "\"F\\u006f\\u001B[2J\"")), HasSubstr("\"Fo\\\\x1B[2J\""));
    EXPECT_EQ(rewritten(sampleWith("\"processName\"", "\"process\\u004Eame\"")), text);
    EXPECT_THAT(rewritten(sampleWith("\"length\": 65536", "\"length\": 9223372036854775807")),
                HasSubstr("begins before"));
}

TEST(MemoryGraphTest, ErrorsHaveLineAndColumn) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"{", "[", "the document must be an object (line 1, column 1)"},
        {"zorbel-memgraph", "zorbel-graph", "format is not \"zorbel-memgraph\" (line 2, column 25)"},
        {"\"version\": 1", "\"version\": 2", "version is 2, and only 1 can be read (line 3, column 14)"},
        {" \"capture\": \"by hand\",\n", "", "the document \"capture\" is missing (line 23, column 1)"},
        {"\"regions\"", "\"Regions\"", "the document \"regions\" is missing (line 24, column 1)"},
        {"\"pid\": 42", "\"pid\": -1", "pid must be a whole number from 0 to 2147483647 (line 5, column 11)"},
        {"\"pid\": 42", "\"pid\": 2147483648", "pid must be a whole number from 0 to 2147483647"},
        {"\"pid\": 42", "\"pid\": 42.0", "pid must be a whole number"},
        {"\"pid\": 42", "\"pid\": {}", "pid must be a whole number"},
        {"\"is64bit\": false", "\"is64bit\": 0", "is64bit must be true or false"},
        {"\"Foo\"", "null", "processName must be a text"},
        {"\"Foo\"", "\"Foo\", \"pid\": 42", "pid appears twice"},
        {"4096", "4097", "vmPageSize must be a power of two from 4096 to 1048576 (line 9, column 20)"},
        {"4096", "0", "vmPageSize must be a power of two"},
        {"123456", "9223372036854775808", "physZorbel must be a whole number from 0 to 9223372036854775807"},
        {"[", "{", "regions must be an array"},
        {"[", "[3, ", "regions[0] must be an object"},
        {"[", "[[", "regions[0] must be an object"},
        {"\"address\": 65536", "\"address\": 18446744073709551616",
         "regions[0].address must be a whole number"},
        {"\"length\": 65536", "\"length\": 0", "regions[0] has no length"},
        {"\"length\": 65536", "\"length\": 65537",
         "regions[1] begins before the end of the one before (line 15, "},
        {"\"path\": \"\", ", "", "regions[2] \"path\" is missing (line 16, "},
        {"\"resident_size\": 40960", "\"resident_size\": 19999",
         "regions[2] has more dirty than resident bytes"},
        {"\"resident_size\": 40960", "\"resident_size\": 17592186040321", "regions[2].resident_size must be"},
        {"\"ref_count\": 1", "\"ref_count\": 65536",
         "regions[0].ref_count must be a whole number from 0 to 65535"},
        {"\"share_mode\": 2", "\"share_mode\": 256", "regions[2].share_mode must be"},
        {"\"is_submap\": false", "\"is_submap\": \"no\"", "regions[0].is_submap must be true or false"},
        {"\"purgeable\": 3", "\"purgeable\": 4", "regions[0].purgeable must be a whole number from 0 to 3"},
        {"\"object_id\": 4", "\"object_id\": 4294967296", "regions[3].object_id must be"},
        {"\"address\": 1073807360", "\"address\": 18446744073709551615",
         "regions[8] reaches beyond the last address"},
        {"{", "{\"x\": [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[",
         "the document is nested too deep (line 1, column 3"},
        {"\"version\": 1,", "\"version\": 1", "not JSON: syntax error (line 4, column 2)"},
    };
    const std::string longText(70000, 'x');  // Longer than the parser's buffer.
    EXPECT_THAT(rewritten(sampleWith("\"/tmp/data\"", "\"" + longText + "\"")),
                StartsWith("regions[7].path is longer than 1024 bytes (line 21, column "));
    EXPECT_EQ(rewritten(sampleWith("{", "{\"" + longText + "\": \"" + longText + "\", ")),
              rewritten(kSample));
    for (const auto& [text, other, wrong] : rows)
        EXPECT_THAT(rewritten(sampleWith(text, other)), StartsWith(wrong)) << other;
    EXPECT_EQ(rewritten(testData("graphs/arm.memgraph.gz") + std::string(512, '\0')), rewritten(kSample));
    EXPECT_THAT(rewritten(kSample + "x"), StartsWith("not JSON: extra data (line 25, column 1)"));
    EXPECT_EQ(rewritten(kSample + std::string(70000, ' ')), rewritten(kSample));
    EXPECT_THAT(rewritten(kSample + std::string(70000, '\n') + "x"), StartsWith("not JSON: extra data"));
}

TEST(MemoryGraphTest, RejectsTruncatedFiles) {
    for (const char* name :
         {"arm.memgraph", "arm.memgraph.gz", "arm.memgraph.zst", "arm-in-two.memgraph.gz"}) {
        const std::string whole = testData(std::string("graphs/") + name);
        const std::string contents = whole.substr(0, whole.find_last_not_of('\n') + 1);
        for (std::size_t size = 0; size < contents.size(); ++size)
            ASSERT_FALSE(rewritten(contents.substr(0, size)).starts_with('{')) << name << " " << size;
    }
    std::string damaged = testData("graphs/arm.memgraph.gz");
    damaged[100] = static_cast<char>(damaged[100] ^ 0x55);
    EXPECT_THAT(rewritten(damaged), StartsWith("the compressed data is damaged: "));
}

}  // namespace
}  // namespace zorbel::test
