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

/// The sample, of which a region with 40960 resident, 20000 dirty and 16384 swapped bytes has these parts.
std::string sampleWithParts(const std::string& parts) {
    const std::string purgeable = "\"object_id\": 3, \"purgeable\": 3";
    return sampleWith(purgeable, purgeable + ", \"shared\": [" + parts + "]");
}

/// A part with these members in place of its usual ones.
std::string partWith(const std::string& member, const std::string& value) {
    std::string text =
        "{\"object_id\": 9, \"resident_size\": 8192, \"swapped_out_size\": 4096, "
        "\"dirty_size\": 4096, \"object_resident_size\": 69632, "
        "\"object_swapped_out_size\": 16384, \"object_dirty_size\": 65536}";
    const std::size_t start = text.find("\"" + member + "\": ") + member.size() + 4;
    return text.replace(start, text.find_first_of(",}", start) - start, value);
}
const std::string kPart = partWith("object_id", "9");

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

TEST(MemoryGraphTest, RoundTripKeepsSharedParts) {
    const std::string sample = sampleWithParts(kPart + ", " + partWith("object_id", "0"));
    const std::string text = rewritten(sample);
    EXPECT_EQ(withoutBlanks(text), withoutBlanks(sample));
    EXPECT_EQ(rewritten(text), text);
    // A region without parts does not have the member, and parts may have members of later versions.
    EXPECT_EQ(rewritten(sampleWithParts("")), rewritten(kSample));
    EXPECT_EQ(rewritten(sampleWithParts("{\"new\": [{\"shared\": [0]}], " + kPart.substr(1))),
              rewritten(sampleWithParts(kPart)));
    // As large as the region allows, and as many.
    EXPECT_THAT(rewritten(sampleWithParts(partWith("dirty_size", "8192") + ", " + kPart)), StartsWith("{"));
    std::string many = kPart;
    for (int i = 1; i < 8; ++i) many += ", " + partWith("swapped_out_size", "0");
    EXPECT_THAT(rewritten(sampleWithParts(many)),
                StartsWith("regions[2] has fewer dirty bytes than its parts"));
    EXPECT_THAT(rewritten(sampleWithParts(many + ", 1")),
                StartsWith("regions[2].shared[8] must be an object"));
    EXPECT_THAT(rewritten(sampleWithParts(many + ", " + kPart)),
                StartsWith("regions[2].shared[8] is more than the 8 that a region may have (line 16, "));
}

TEST(MemoryGraphTest, RejectsWrongParts) {
    const std::pair<std::string, const char*> rows[] = {
        {"3", "regions[2].shared[0] must be an object (line 16, column "},
        {"[" + kPart + "]", "regions[2].shared[0] must be an object"},
        {kPart + ", null", "regions[2].shared[1] must be an object"},
        {kPart + ", {}", "regions[2].shared[1] \"object_id\" is missing"},
        {kPart + ", " + partWith("dirty_size", "-1"),
         "regions[2].shared[1].dirty_size must be a whole number"},
        {partWith("dirty_size", "{}"), "regions[2].shared[0].dirty_size must be a whole number"},
        {partWith("dirty_size", "8193"), "regions[2].shared[0] has more dirty than resident bytes"},
        {partWith("dirty_size", "1, \"dirty_size\": 1"), "regions[2].shared[0].dirty_size appears twice"},
        {partWith("object_id", "4294967296"), "regions[2].shared[0].object_id must be a whole number"},
        {partWith("object_dirty_size", "69633"),
         "regions[2].shared[0] has an object with more dirty than resident bytes"},
        {partWith("object_swapped_out_size", "17592186040321"),
         "regions[2].shared[0].object_swapped_out_size must be a whole number from 0 to 17592186040320"},
        {kPart + ", " + partWith("swapped_out_size", "12289"),
         "regions[2] has fewer swapped bytes than its parts"},
        {kPart + ", " + partWith("resident_size", "20961"),
         "regions[2] has fewer clean bytes than its parts"},
        {kPart + "], \"shared\": [", "regions[2].shared appears twice"},
        {kPart + "], \"purgeable\": [", "regions[2].purgeable must be a whole number"},
    };
    for (const auto& [parts, wrong] : rows)
        EXPECT_THAT(rewritten(sampleWithParts(parts)), StartsWith(wrong)) << parts;
    for (const char* other : {"1", "null", "{}", "\"\""})
        EXPECT_THAT(
            rewritten(sampleWith("\"purgeable\": 3", "\"purgeable\": 3, \"shared\": " + std::string(other))),
            StartsWith("regions[0].shared must be an array"));
    const std::string whole = sampleWithParts(kPart);
    for (std::size_t size = 0; size + 2 < whole.size(); ++size)
        ASSERT_FALSE(rewritten(whole.substr(0, size)).starts_with('{')) << size;
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
