// Parsers of the texts under /proc.

#include <gmock/gmock.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "base/Files.h"
#include "base/Utf8.h"
#include "linux/process/ProcessStatus.h"
#include "linux/process/Smaps.h"
#include "support/TestData.h"

namespace zorbel::test {
namespace {

// As the kernel printed them, with a different figure in each field. Other entries have fewer fields, or a
// number that is wider than its column.
const std::string kEntry = testData("smaps-entry.txt");
const std::string kOthers = testData("smaps-others.txt");

std::string textOf(const SmapsEntry& entry) {
    char text[256];
    std::snprintf(text, sizeof text, "%lx-%lx %d%c %lx %lx:%lu flags %x: %lu %lu+%lu %lu %lu %lu+%lu %lu ",
                  entry.start, entry.end, entry.permissions, entry.isShared ? 's' : 'p', entry.offset,
                  entry.device, entry.inode, entry.flags, entry.resident, entry.sharedDirty,
                  entry.privateDirty, entry.anonymous, entry.lazyFree, entry.sharedHugetlb,
                  entry.privateHugetlb, entry.swap);
    return text + std::string(entry.path);
}

/// The entries of a text that is read in pieces of a given size.
std::vector<std::string> parsePieces(std::string_view text, std::size_t pieceSize) {
    std::vector<std::string> entries;
    std::string buffer;
    for (bool atEnd = false; !atEnd;) {
        atEnd = text.empty();
        buffer += text.substr(0, pieceSize);
        text.remove_prefix(std::min(pieceSize, text.size()));
        const std::string piece = buffer;  // Has the exact size, so that a sanitizer detects reads beyond it.
        buffer.erase(
            0, parseSmaps(piece, atEnd, [&](const SmapsEntry& entry) { entries.push_back(textOf(entry)); }));
    }
    EXPECT_EQ(buffer, "");
    return entries;
}

TEST(ProcTextTest, AnyBufferSizeGivesTheSameEntries) {
    const std::string entry =
        "556c3323b000-556c3323f000 5p 4000 fe10:247767 flags 4f: 16 8+12 24 20 2048+4096 28 /usr/lib/a "
        "name\\012of two lines (deleted)";
    // Fields at the same positions as before, then at others.
    const std::string text = kEntry + kEntry + kOthers;
    for (std::size_t pieceSize = 1; pieceSize <= text.size(); ++pieceSize)
        ASSERT_THAT(
            parsePieces(text, pieceSize),
            testing::ElementsAre(
                entry, entry,
                "7f6afec00000-7f6afee00000 3s 0 11:6 flags 13: 0 0+0 0 0 0+2048 0 /SYSV00000000 (deleted)",
                "7ffe2cc5c000-7ffe2cc7d000 3p 0 0:0 flags 27: 17179869184 0+0 0 0 0+0 0 ",
                "ffffffffff600000-ffffffffff601000 4p 0 0:0 flags 0: 0 0+0 0 0 0+0 0 [vsyscall]"))
            << pieceSize;
}

TEST(ProcTextTest, SkipsUnreadableLines) {
    const std::string text =
        "Rss: 4 kB\n1000-1000 rw-p 0 0:0 0 \nRss: 8 kB\n2000 rw-p 0 0:0 0 \nRss: 8 kB\n3000-4000 rw\n"
        "5000-6000 rw-p 0 0:0 0 \nRss: many\nSwap:\nVmFlags: x\n\nNew_Field: 7 kB\n"
        "6000-7000 rw-p 0 0:0 0 [heap]\nRss: 12 kB";
    for (std::size_t pieceSize = 1; pieceSize <= text.size(); ++pieceSize)
        ASSERT_THAT(parsePieces(text, pieceSize),
                    testing::ElementsAre("5000-6000 3p 0 0:0 flags 0: 0 0+0 0 0 0+0 0 ",
                                         "6000-7000 3p 0 0:0 flags 0: 12 0+0 0 0 0+0 0 [heap]"));
}

TEST(ProcTextTest, ParsesStatusWithAHostileName) {
    const auto status = parseProcessStatus(testData("status.txt"));
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->charge(), (112 + 1024 + 8388608 + 2048) * 1024UL);
    EXPECT_EQ(std::tuple(status->residentPeak, status->pageTables, status->threads),
              std::tuple(1640 * 1024U, 44 * 1024U, 13U));
    EXPECT_FALSE(parseProcessStatus("Name:\tgone\nState:\tZ (zombie)\nThreads:\t1\n").has_value());
}

TEST(ProcTextTest, PrintableEscapesUnsafeBytes) {
    const std::pair<std::string, std::string> texts[] = {
        {"plain text~", "plain text~"},
        {"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {std::string("\0\n\x1B\x7F", 4), "\\x00\\x0A\\x1B\\x7F"},
        {"\xC2\x80\xC2\x9F\xC2\xA0", "\\xC2\\x80\\xC2\\x9F\xC2\xA0"},  // Other control characters.
        {"\x80 \xFF \xC3", "\\x80 \\xFF \\xC3"},                       // Stray and cut off.
        {"\xC0\xAF \xE0\x80\xAF", "\\xC0\\xAF \\xE0\\x80\\xAF"},       // Overlong.
        {"\xED\xA0\x80 \xF4\x90\x80\x80", "\\xED\\xA0\\x80 \\xF4\\x90\\x80\\x80"},  // No characters.
        {"\xE2\x82\x1B[m", "\\xE2\\x82\\x1B[m"},
    };
    for (const auto& [text, expected] : texts) EXPECT_EQ(printable(text), expected);
    EXPECT_EQ(printable("ab\xC3\xA9", 3), "ab");  // Characters are not split.
    EXPECT_EQ(printable("ab\x1B", 5), "ab");
}

}  // namespace
}  // namespace zorbel::test
