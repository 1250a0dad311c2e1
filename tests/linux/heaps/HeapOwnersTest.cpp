// Whose heap memory without a file is, by layouts and contents as they were seen in real processes.

#include "linux/heaps/HeapOwners.h"

#include <gmock/gmock.h>

#include <cstring>
#include <deque>
#include <map>
#include <sstream>

#include "linux/process/Smaps.h"

namespace zorbel::test {
namespace {

using namespace testing;

/// An address space of a few lines "START-END rwxp [PATH]", and some of its contents.
class HeapOwnersTest : public Test {
  protected:
    void map(const std::string& lines) {
        _regions.clear();
        std::istringstream text(lines);
        for (std::string line; std::getline(text, line);) {
            SnapshotRegion& region = _regions.emplace_back();
            char permissions[5] = "";
            int path = 0;
            ASSERT_EQ(
                std::sscanf(line.c_str(), " %lx-%lx %4s %n", &region.start, &region.end, permissions, &path),
                3)
                << line;
            region.isPrivate = true;
            for (const auto& [letter, bit] :
                 {std::pair('r', SmapsEntry::kRead), {'w', SmapsEntry::kWrite}, {'x', SmapsEntry::kExecute}})
                if (std::string_view(permissions).find(letter) != std::string_view::npos)
                    region.protection |= bit;
            const std::string name = line.substr(static_cast<std::size_t>(path));
            if (name == "[heap]")
                region.tag = Tag::kSbrk;
            else if (name.starts_with('['))
                region.tag = Tag::kNamedAnonymous;
            else if (!name.empty())
                region.file = &_files.emplace_back(MappedFile{Name(name)});
            region.isPlainAnonymous = name.empty();
        }
    }

    /// The kinds of all regions that are no file's, after splitting them as the pieces ask for.
    std::vector<Tag> kinds() {
        const HeapEvidence evidence(_regions, &program, [&](std::uint64_t at, std::span<std::byte> buffer) {
            for (std::size_t i = 0; i < buffer.size(); i += sizeof(std::uint64_t)) {
                const auto word = contents.find(at + i);
                const std::uint64_t value = word != contents.end() ? word->second : 0;
                std::memcpy(buffer.data() + i, &value, sizeof value);
            }
            return true;
        });
        std::vector<SnapshotRegion> split;
        const std::vector<HeapPiece> pieces = findHeaps(evidence);
        for (const SnapshotRegion& region : _regions) {
            std::uint64_t start = region.start;
            const auto add = [&](std::uint64_t end) {
                if (end <= start || end > region.end) return;
                SnapshotRegion& part = split.emplace_back(region);
                part.start = start;
                part.end = start = end;
            };
            for (const HeapPiece& piece : pieces) add(piece.start), add(piece.end);
            add(region.end);
        }
        nameHeaps(split, pieces);
        std::vector<Tag> tags;
        for (const SnapshotRegion& region : split)
            if (region.file == nullptr) tags.push_back(region.tag);
        return tags;
    }

    ElfLayout program;
    std::map<std::uint64_t, std::uint64_t> contents;  ///< Words by address; all others are 0.

  private:
    std::vector<SnapshotRegion> _regions;
    std::deque<MappedFile> _files;
};

constexpr Tag kUnnamed = Tag::kNone;

/// Shows where the kernel places mappings.
const std::string kLibrary = "7ff100000000-7ff100001000 r-xp /lib/libm.so.6\n";

TEST_F(HeapOwnersTest, LayoutsNameHeapsInProgramsOfTheirRuntimeOnly) {
    const std::string java =
        "687400000-6cf800000 rw-p \n6cf800000-7ff800000 ---p \n7ff800000-7ffb00000 rw-p \n"
        "7f778b000000-7f778b050000 rw-p \n7f778b050000-7f778b400000 ---p \n7f778b400000-7f778b410000 rw-p \n"
        "7f778b410000-7f778f000000 ---p \n7f778f000000-7f778fbc7000 rw-p /jvm/classes.jsa\n"
        "7f778fbc7000-7f7790000000 ---p \n7f7790000000-7f7790010000 rw-p \n7f7790010000-7f77d0000000 ---p \n"
        "7f77d0000000-7f77d0021000 rw-p \n7f77d8000000-7f77d8270000 rwxp \n";
    const std::string node =
        "b13100000-b13140000 rw-p \n3e280c1000-3e28100000 rw-p \n"
        "7f1000040000-7f1000080000 rw-p \n7f1000100000-7f1000101000 r-xp \n";
    const std::string chromium =
        "76d00000000-77d00000000 ---p \n77d00000000-77d00010000 r--p \n77d00010000-8c500000000 ---p \n"
        "14c000000000-14c000004000 ---p \n14c000004000-14c000108000 rw-p \n14c000108000-14c800000000 ---p \n"
        "255c00000000-255c02000000 ---p \n255c02000000-255c02820000 rw-p \n255c02820000-256000000000 ---p \n";
    const std::string jemalloc =
        "7f25f9c00000-7f2604600000 rw-p \n7f2604d4e000-7f2604d55000 rw-p \n"
        "7f2605000000-7f2605001000 ---p \n7f2605001000-7f2605801000 rw-p \n";
    const std::string mimalloc = "2228c000000-22296000000 rw-p \n7f1312af4000-7f1312af7000 rw-p \n";
    const std::string heap = "5569d2549000-5569db544000 rw-p [heap]\n";
    using enum Tag;
    const struct {
        std::string layout;
        std::string file;
        std::vector<Tag> kinds;
    } rows[] = {
        {java,
         "/jvm/lib/server/libjvm.so",
         {kJavaHeap, kUnnamed, kJavaHeap, kJavaMetaspace, kUnnamed, kJavaMetaspace, kUnnamed, kUnnamed,
          kJavaClassSpace, kUnnamed, kUnnamed, kJavaCode}},
        {node, "/usr/bin/node", {kV8Heap, kUnnamed, kUnnamed, kJitCode}},
        {chromium,
         "/usr/lib/chromium/chromium",
         {kUnnamed, kV8Heap, kUnnamed, kUnnamed, kPartitionAlloc, kUnnamed, kUnnamed, kOilpanHeap, kUnnamed}},
        {jemalloc, "/lib/libjemalloc.so.2", {kJemalloc, kUnnamed, kUnnamed, kUnnamed}},
        {mimalloc, "/lib/libmimalloc.so.2.0", {kMimalloc, kUnnamed}},
        {heap, "/lib/libtcmalloc_minimal.so.4", {kTcmalloc}},
    };
    for (const auto& [layout, file, expected] : rows) {
        for (const auto& other : rows) {
            map(layout + "7ff000000000-7ff000001000 r-xp " + other.file + "\n" + kLibrary);
            if (other.file == file)
                EXPECT_EQ(kinds(), expected) << file;
            else  // A layout of one runtime never gets the name of another that can't have it.
                EXPECT_THAT(kinds(), Each(AnyOf(kUnnamed, kSbrk, AnyOfArray(other.kinds), kV8Heap,
                                                kOilpanHeap, kJitCode)))
                    << layout << " in " << other.file;
        }
        map(layout + "7ff000000000-7ff000001000 r--p " + file + "\n");  // Not as code.
        EXPECT_THAT(kinds(), Each(AnyOf(kUnnamed, kSbrk))) << file;
    }
}

TEST_F(HeapOwnersTest, GoIsKnownByItsNote) {
    const std::string layout =
        "c000000000-c000400000 rw-p \nc000400000-c004000000 ---p \n7f0000000000-7f0000040000 rw-p \n";
    map(layout);
    EXPECT_THAT(kinds(), Each(kUnnamed));
    program.isGo = true;
    EXPECT_THAT(kinds(), ElementsAre(Tag::kGoHeap, kUnnamed, Tag::kGoRuntime));
    map(layout + "7ff000000000-7ff000001000 r-xp /lib/libc.so.6\n");  // Which has a heap too.
    EXPECT_THAT(kinds(), ElementsAre(Tag::kGoHeap, kUnnamed, kUnnamed));
}

TEST_F(HeapOwnersTest, BlocksAreKnownByTheirStarts) {
    constexpr std::uint64_t kStart = 0x7F0000000000;
    const auto inProgram = [&](const std::string& file) {
        map("7f0000000000-7f0000200000 rw-p \n7f1000000000-7f1000001000 r-xp /lib/libc.so.6\n"
            "7ff000000000-7ff000001000 r-xp " +
            file + "\n");
        return kinds();
    };
    // Two large allocations, and something else behind them.
    contents = {{kStart + 8, 0x21002}, {kStart + 0x21008, 0x40002}};
    EXPECT_THAT(inProgram("/bin/true"), ElementsAre(Tag::kMallocLarge, kUnnamed));
    contents[kStart] = 1;  // No mapping of its own has anything before it.
    EXPECT_THAT(inProgram("/bin/true"), ElementsAre(kUnnamed));

    // An arena of Python's: 3 objects of 32 bytes in use, in a pool of 16 KiB.
    contents = {{kStart, 3},
                {kStart + 8, kStart + 0x90},
                {kStart + 32, std::uint64_t{1} << 32},
                {kStart + 40, 0xA0 | std::uint64_t{16384 - 32} << 32}};
    EXPECT_THAT(inProgram("/usr/bin/python3.11"), ElementsAre(Tag::kPythonObjects, kUnnamed));
    EXPECT_THAT(inProgram("/bin/true"), ElementsAre(kUnnamed));

    // A page of Ruby's, and what describes it.
    contents = {{kStart, 0x55655BCD7D20}, {0x55655BCD7D40, kStart + 8}};
    EXPECT_THAT(inProgram("/lib/libruby-3.1.so.3.1"), ElementsAre(Tag::kRubyHeap, kUnnamed));

    // A carrier of Erlang's with its neighbours and its allocator.
    contents = {{kStart, 0x100001}, {kStart + 8, 0x7F9977E00000}, {kStart + 24, 0x5582FC575280}};
    EXPECT_THAT(inProgram("/usr/lib/erlang/erts-13.1.5/bin/beam.smp"),
                ElementsAre(Tag::kErlangHeap, kUnnamed));
    contents[kStart + 24] = 0;
    EXPECT_THAT(inProgram("/usr/lib/erlang/erts-13.1.5/bin/beam.smp"), ElementsAre(kUnnamed));
}

TEST_F(HeapOwnersTest, FullArenasThatTouchAreArenas) {
    constexpr std::uint64_t kFirst = 0x7F0004000000;
    constexpr std::uint64_t kArena = 64 << 20;
    map("7f0004000000-7f000a000000 rw-p \n7f000a000000-7f000c000000 ---p \n"
        "7f1000000000-7f1000001000 r-xp /lib/libc.so.6\n");
    contents = {{kFirst, kFirst + 48},
                {kFirst + 16, kArena},
                {kFirst + 24, kArena},
                {kFirst + kArena, kFirst + 48},
                {kFirst + kArena + 8, kFirst},
                {kFirst + kArena + 16, 0x1F00000},
                {kFirst + kArena + 24, 0x2000000}};
    EXPECT_THAT(kinds(), ElementsAre(Tag::kMallocSmall, kUnnamed));
    contents[kFirst + 24] = 4096;  // Less can be accessed than is mapped: something else.
    EXPECT_THAT(kinds(), Each(kUnnamed));
}

TEST_F(HeapOwnersTest, WhatOnlyLooksAlikeHasNoName) {
    const std::string libc = "7ff000000000-7ff000001000 r-xp /lib/libc.so.6\n";
    const std::pair<std::string, std::string> rows[] = {
        // A full arena of the C library, which is as large as a node of Java's metaspace.
        {"7f0004000000-7f0008000000 rw-p \n", "/jvm/lib/server/libjvm.so"},
        // Stacks beside a large reservation of Java's.
        {"7e0000000000-7e0000100000 ---p \n7e0000100000-7e0a00001000 ---p \n7e0a00001000-7e0a000fd000 rw-p "
         "\n",
         "/jvm/lib/server/libjvm.so"},
        // Memories of WebAssembly that lie side by side.
        {"7e0000000000-7e0280000000 ---p \n7e0280000000-7e0281000000 rw-p \n7e0281000000-7e1a80000000 ---p "
         "\n",
         "/usr/bin/node"},
        // A program whose mappings the kernel places where V8's pages would be.
        {"148300000000-148300040000 rw-p \n148310000000-148310001000 r-xp /lib/libm.so.6\n", "/usr/bin/node"},
        {"b13100000-b13140000 rw-p \n", "/usr/bin/nodeapp"},
        {"b13100000-b13140000 rw-p \n", "/usr/bin/node_exporter"},
        // Stacks above guards, side by side in a multiple of mimalloc's segments.
        {"7e0004000000-7e0004001000 ---p \n7e0004001000-7e0004801000 rw-p \n7e0004801000-7e0004802000 ---p \n"
         "7e0004802000-7e0008002000 rw-p \n",
         "/lib/libmimalloc.so.2.0"},
    };
    for (const auto& [layout, file] : rows) {
        const bool hasHighLibraries = layout.find("/lib/libm.so.6") == std::string::npos;
        map(layout + (hasHighLibraries ? libc + "7ff000002000-7ff000003000 r-xp " + file + "\n"
                                       : "148310002000-148310003000 r-xp " + file + "\n"));
        EXPECT_THAT(kinds(), Each(kUnnamed)) << layout << file;
    }
}

TEST_F(HeapOwnersTest, ContentsComeBeforeLayouts) {
    // Python with another allocator: its arenas are known by what is in them.
    constexpr std::uint64_t kStart = 0x7F0000000000;
    contents = {{kStart, 3},
                {kStart + 8, kStart + 0x90},
                {kStart + 32, std::uint64_t{1} << 32},
                {kStart + 40, 0xA0 | std::uint64_t{16384 - 32} << 32}};
    map("7f0000000000-7f0000200000 rw-p \n7f0000200000-7f0000201000 r-xp /usr/bin/python3.11\n"
        "7f1000000000-7f1000001000 r-xp /lib/libjemalloc.so.2\n");
    EXPECT_THAT(kinds(), ElementsAre(Tag::kPythonObjects, Tag::kJemalloc));
}

TEST_F(HeapOwnersTest, NamesOfTheProgramWin) {
    map("b13100000-b13140000 rw-p [anon:mine]\n7ff000000000-7ff000001000 r-xp /usr/bin/node\n");
    EXPECT_THAT(kinds(), ElementsAre(Tag::kNamedAnonymous));
}

}  // namespace
}  // namespace zorbel::test
