#include "inspect/ZBUserProcess.h"

#include <array>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <span>
#include <sstream>
#include <tuple>

#include "support/Targets.h"

namespace zorbel::test {

using namespace testing;

constexpr std::uint64_t kShared = 0x1'8000'0000;
constexpr std::uint64_t kSharedEnd = 0x2'8000'0000;
constexpr std::uint64_t kBelow = kShared - 0x10000;
constexpr std::uint64_t kHighest = UINT64_MAX;
const std::string kBailingOut = "bailing out for process baker [100]; data may be incomplete!\n";
const Name kText("__TEXT");
const Name kData("__DATA");
const Name kData2("__DATA2");

class ZBUserProcessTest : public WalkTest {
  protected:
    /// A shared region of so many pages, and memory close below it.
    void nest(std::uint64_t pages) {
        baker.maps(kBelow, {});
        baker.nestedMaps[kShared].pages = pages;
        for (std::uint64_t i = 0; i < pages; ++i) baker.maps(kShared + i * kPage, {});
    }

    /// A letter for each page: D dirty, S swapped out, B both, A anonymous, X of a file, others absent.
    void setPages(const std::string& pages) {
        const std::map<char, std::int32_t> words = {
            {'D', 0x1 | 0x8}, {'S', 0x10}, {'B', 0x8 | 0x10}, {'A', 0x1}, {'X', 0x1 | 0x80}};
        baker.dispositions.clear();
        for (std::uint64_t address = kShared; const char page : pages) {
            if (words.contains(page)) baker.dispositions[address] = words.at(page);
            address += kPage;
        }
    }

    /// The pieces of the shared region: offset+size, name or - if unused, dirty/swapped bytes.
    std::string pieces() const {
        std::ostringstream text;
        text << std::hex;
        for (const ZBMemoryRegion& region : process->memoryRegions()) {
            if (!region.inSharedCache()) continue;
            const std::string& name = region.name().text();
            text << region.start() - kShared << "+" << region.size() << " "
                 << (region.unusedSharedCacheRegion() ? "-" : name.substr(2, name.find(" /") - 2));
            if (region.dirtySize() + region.swappedSize() != 0)
                text << " " << region.dirtySize() << "/" << region.swappedSize();
            text << "; ";
        }
        return text.str();
    }

    /// The pages that were asked for, as first:count.
    std::string queries() const {
        std::ostringstream text;
        for (const auto& [address, count] : baker.pageQueries)
            text << (address - kShared) / machine.pageSize << ":" << count << " ";
        return text.str();
    }

    /// The pieces and the queries for an image with segments at these offsets, and these pages.
    void expectSplit(std::vector<SymbolSegment> segments, const std::string& pages, const char* expected) {
        for (SymbolSegment& segment : segments) segment.location += kShared;
        baker.images.clear();
        baker.loads("/lib", std::move(segments));
        setPages(pages);
        gather();
        EXPECT_EQ(pieces() + queries(), expected);
    }
};

TEST_F(ZBUserProcessTest, EnumeratorFindsOverlapsInOrder) {
    using Range = std::pair<std::uint64_t, std::uint64_t>;
    std::vector<ZBImage> images;
    // The third has no bytes, and the last one ends beyond the last address.
    const Range places[] = {{0x1000, 0x1000}, {0x3000, 0x1000}, {0x5000, 0},
                            {0x6000, 0x3000}, {0x7000, 0x1000}, {0xA000, kHighest}};
    for (const auto& [start, size] : places) {
        images.emplace_back().setStart(start);
        images.back().setSize(size);
    }
    const std::pair<Range, int> rows[] = {
        {{0x800, 0x1000}, -1}, {{0x1800, 0x2800}, 0},  {{0x2000, 0x3000}, -1}, {{0x2800, 0x3800}, 1},
        {{0x3400, 0x3800}, 1}, {{0x3800, 0x3A00}, 1},  {{0x4000, 0x6000}, -1}, {{0x5000, 0x9800}, 3},
        {{0x8000, 0x8800}, 3}, {{0x9000, 0xA000}, -1}, {{0x9000, 0xA001}, 5},  {{kHighest - 1, kHighest}, 5}};
    ZBImageEnumerator enumerator(images);
    for (const auto& [range, expected] : rows) {
        const ZBImage* found = enumerator.nextImageForStart(range.first, range.second);
        EXPECT_EQ(found == nullptr ? -1 : found - images.data(), expected) << std::hex << range.first;
    }
}

TEST_F(ZBUserProcessTest, RegionsOfImagesHaveTheirNames) {
    const std::tuple<const char*, std::string, SegmentCode> rows[] = {
        {"MACH_HEADER", "__TEXT", SegmentCode::kText},
        {"__TEXT", "__TEXT", SegmentCode::kText},
        {"__TEXT_EXEC", "__TEXT_EXEC", SegmentCode::kUnspecified},
        {"__DATA segment", "__DATA", SegmentCode::kData},
        {"__DATA_CONST", "__DATA_CONST", SegmentCode::kData},
        {"__LINKEDIT", "__LINKEDIT", SegmentCode::kLinkedit},
        {"__OBJC MACH_HEADER", "__OBJC", SegmentCode::kUnspecified},
    };
    const auto path = [](std::size_t i) { return i % 2 == 0 ? "/lib/even" : "/lib/odd"; };
    const std::size_t count = std::size(rows);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t address = (count - i) * kPage;  // The platform returns the highest first.
        baker.loads(path(i), {{address, kPage, Name(std::get<0>(rows[i]))}});
        baker.maps(address, {.info = {.user_tag = kStack}, .path = Name("/elsewhere")});
    }
    baker.maps(0x9000, {});
    gather();
    for (std::size_t i = 0; i < count; ++i) {
        const auto& [told, name, segment] = rows[i];
        const ZBMemoryRegion& region = process->memoryRegions()[count - 1 - i];
        EXPECT_EQ(region.name().text(), name + " " + path(i));
        EXPECT_EQ(region.detailedName().text(), path(i));
        EXPECT_EQ(region.segment(), segment);
    }
    EXPECT_EQ(process->memoryRegions().back().segment(), SegmentCode::kNotInImage);
    ZBImage image;
    for (const char* name : {"__TEXT", "__OBJC"}) image.setName(Name(name));
    EXPECT_EQ(image.segment(), SegmentCode::kText);  // From the last name that has a code.
}

TEST_F(ZBUserProcessTest, ProcessMetrics) {
    const auto expectFigures = [this](const std::string& expected) {
        gather();
        EXPECT_EQ(boost::json::serialize(process->auxData()->jsonRepresentation()), expected);
    };
    const std::string none = R"({"Kernel memory":{"KPRVT":0,"KSHRD":0}})";
    expectFigures(none);
    baker.charges = {0, 4096};
    expectFigures(none);
    baker.charges = {UINT64_MAX, 4096};
    baker.kernelMemory = {4096, 8192, 7, 2};
    expectFigures(R"({"Kernel memory":{"KPRVT":-4096,"KSHRD":5},"phys_zorbel":-1,"phys_zorbel_peak":4096})");
    const ZBIdleExitStatus statuses[] = {ZBIdleExitStatus::kNotIdleExit, ZBIdleExitStatus::kNotIdleExit,
                                         ZBIdleExitStatus::kNotIdleExit, ZBIdleExitStatus::kIdleExitClean,
                                         ZBIdleExitStatus::kNotIdleExit, ZBIdleExitStatus::kNotIdleExit,
                                         ZBIdleExitStatus::kNotIdleExit, ZBIdleExitStatus::kIdleExitDirty};
    for (baker.dirtyFlags = 0; baker.dirtyFlags < 16; ++baker.dirtyFlags) {
        gather();
        EXPECT_EQ(process->idleExitStatus(), statuses[baker.dirtyFlags % 8]) << baker.dirtyFlags;
    }
    baker.dirtyFlags = 3;
    baker.hasFigures = false;  // Figures that can't be read are left out.
    expectFigures(none);
    EXPECT_EQ(process->idleExitStatus(), ZBIdleExitStatus::kNotIdleExit);
}

TEST_F(ZBUserProcessTest, KindOfMachineDecidesSharedRegion) {
    constexpr std::uint32_t k64Bit = BsdInfoRecord::kFlag64Bit;
    const std::tuple<std::optional<ZBPlatform>, std::uint32_t, std::uint64_t, std::uint64_t, bool> rows[] = {
        {ZBPlatform::kX86, 0, 0x90000000, 0x20000000, true},
        {ZBPlatform::kX86_64, k64Bit, 0x7FFF00000000, 0xFFE00000, true},
        {ZBPlatform::kARM64_32, 0, 0x1A000000, 0x26000000, true},
        {std::nullopt, 0, 0x1A000000, 0x26000000, true},
        {std::nullopt, k64Bit, kShared, 0x100000000, true},
        {ZBPlatform::kLinux, k64Bit, kShared, 0x100000000, false},
        {static_cast<ZBPlatform>(9), k64Bit, kShared, 0x100000000, false},
    };
    for (const auto& [kind, flags, base, size, exists] : rows) {
        machine.kind = kind;
        baker.flags = flags;
        baker.regions.clear();
        for (const std::uint64_t address : {base - kPage, base, base + size - kPage, base + size})
            baker.maps(address, {});
        gather();
        const auto isShared = [](bool value) { return Property(&ZBMemoryRegion::inSharedCache, value); };
        EXPECT_THAT(process->memoryRegions(),
                    ElementsAre(isShared(false), isShared(exists), isShared(exists), isShared(false)));
        EXPECT_EQ(baker.topLookups.empty(), !exists);
    }
    EXPECT_EQ(said, "Unable to determine platform architecture of target\n");
}

TEST_F(ZBUserProcessTest, TopLevelLookupsStayNearTheSharedRegion) {
    nest(4);
    baker.regions.erase(kBelow);
    baker.maps(0x1000, {}).maps(0x1'0000'0000, {}).maps(0x1'7000'0000, {}).maps(kSharedEnd, {});
    gather();
    EXPECT_THAT(starts(), ElementsAre(0x1000, 0x1'0000'0000, 0x1'7000'0000, kShared, kSharedEnd));
    EXPECT_EQ(pieces(), "0+4000 -; ");
    EXPECT_EQ(baker.lookups, 5);  // The last one finds the end.
    EXPECT_THAT(baker.topLookups, AllOf(Contains(0x1'7000'1000), Contains(kShared + 0x4000),
                                        Not(Contains(0x1'0000'1000)), SizeIs(Le(12U))));
    // The search found nothing, so the leaves inside are split one by one.
    for (const std::uint64_t address : {0x1000ULL, 0x1'0000'0000ULL, 0x1'7000'0000ULL})
        baker.regions.erase(address);
    gather();
    EXPECT_EQ(pieces(), "0+1000 -; 1000+1000 -; 2000+1000 -; 3000+1000 -; ");
    EXPECT_EQ(baker.lookups, 6);
    EXPECT_THAT(baker.topLookups, Each(Lt(kShared)));
    // An overlapped part is not counted twice.
    baker.maps(kShared - kPage, {.pages = 2});
    gather();
    EXPECT_THAT(starts(), ElementsAre(kShared - kPage, kShared + kPage, kSharedEnd));
    EXPECT_EQ(pieces(), "1000+3000 -; ");
}

TEST_F(ZBUserProcessTest, FailingTopLevelLookupEndsTheWalk) {
    nest(4);
    baker.maps(kSharedEnd, {});
    baker.failingTopLookup = 2;  // The search takes one, and the shared region the next.
    for (const KernReturn code : {kKernInvalidAddress, kKernFailure}) {
        const bool isEnd = code == kKernInvalidAddress;
        baker.topLookupCode = code;
        gather();
        EXPECT_THAT(starts(), ElementsAre(kBelow, kShared));
        EXPECT_EQ(said, isEnd ? "" : "mach_vm_region: failure\n" + kBailingOut);
        EXPECT_THAT(process->errors(), SizeIs(isEnd ? 0 : 1));
    }
}

TEST_F(ZBUserProcessTest, StretchIsSplitByImages) {
    nest(6);
    baker.nestedMaps[kShared].info = {.offset = 0x7000, .user_wired_count = 1};
    baker.maps(kSharedEnd, {});
    expectSplit({{0x1000, 0x1000, kText},
                 {0x2000, 0x1800, kData},
                 {0x4000, 0x1000, Name("__LINKEDIT")},
                 {kBelow - kShared, kPage, kText},
                 {kSharedEnd - kShared, kPage, kText}},
                "DDDDDD",
                "0+1000 -; 1000+1000 TEXT; 2000+2000 DATA 2000/0; "
                "4000+1000 LINKEDIT varnel shared cache; 5000+1000 -; 2:2 ");
    const std::vector<ZBMemoryRegion>& regions = process->memoryRegions();
    for (const ZBMemoryRegion& region : std::span(regions).subspan(1, 5)) {
        EXPECT_EQ(region.offset(), region.start() - kShared + 0x7000);
        EXPECT_EQ(std::tuple(region.object_id(), region.share_mode()), std::tuple(1, 1));
        EXPECT_EQ(region.wiredSize(), region.segment() == SegmentCode::kData ? kPage : 0);
        EXPECT_FALSE(region.detailedName().isPresent());
    }
    EXPECT_EQ(regions[1].name().text(), "unused varnel shared cache area");
    EXPECT_EQ(regions[1].segment(), SegmentCode::kUnspecified);
    EXPECT_EQ(regions[3].name().text(), "__DATA /lib");
    for (const std::size_t outside : {0U, 6U}) EXPECT_EQ(regions[outside].name().text(), "__TEXT /lib");
}

TEST_F(ZBUserProcessTest, PiecesCoverTheWholeStretch) {
    nest(4);
    expectSplit({{0, 0x1800, kText}}, "", "0+2000 TEXT; 2000+2000 -; ");
    expectSplit({{0x800, 0x1000, kText}}, "", "0+800 -; 800+1000 TEXT; 1800+2800 -; ");
    expectSplit({{0, 0x1800, kText}, {0x1900, 0x700, kText}}, "",
                "0+1800 TEXT; 1800+100 -; 1900+700 TEXT; 2000+2000 -; ");
    // Images that no linker makes: empty, overlapping, and beyond the last address.
    expectSplit({{0x1000, 0, kData}, {0x1000, 0x1000, kText}, {0x2000, 0, kData}}, "",
                "0+1000 -; 1000+1000 TEXT; 2000+2000 -; ");
    expectSplit({{0, 0x800, kText}, {0, 0x900, kData}, {0x1000, 0x1000, kText}}, "",
                "0+1000 TEXT; 1000+1000 TEXT; 2000+2000 -; ");
    expectSplit({{0, 0x3000, kText}, {0x1000, 0x1000, kData}, {0x2000, 0x2000, kText}}, "",
                "0+3000 TEXT; 3000+1000 TEXT; ");
    expectSplit({{0x1000, kHighest, kText}}, "", "0+1000 -; 1000+3000 TEXT; ");
    baker.regions.clear();
    baker.maps(kShared, {.pages = kHighest / kPage});
    gather();
    EXPECT_EQ(process->memoryRegions().back().end(), kHighest);
}

TEST_F(ZBUserProcessTest, PiecesAreChargedTheirShareOfPages) {
    nest(4);
    expectSplit({{0, 0x4000, kData}}, "DSX.", "0+4000 DATA 1000/1000; 0:4 ");
    expectSplit({{0, 0x4000, kData}}, "ABXS", "0+4000 DATA 2000/1000; 0:4 ");
    // A page that counts is queried once, by the first piece that shares it.
    const std::vector<SymbolSegment> touching = {{0x800, 0x2400, kData}, {0x2C00, 0x1400, kData2}};
    expectSplit(touching, "DSDD", "0+800 -; 800+2400 DATA 1400/1000; 2c00+1400 DATA2 1400/0; 0:3 3:1 ");
    expectSplit(touching, "DDXD", "0+800 -; 800+2400 DATA 1800/0; 2c00+1400 DATA2 1000/0; 0:3 2:2 ");
    // Unused memory is charged for shared pages, by the queries of its neighbours.
    const std::vector<SymbolSegment> apart = {{0, 0x1800, kData}, {0x3800, 0x800, kData2}};
    expectSplit(apart, "DDDD", "0+1800 DATA 1800/0; 1800+2000 - 1000/0; 3800+800 DATA2 800/0; 0:2 3:1 ");
    expectSplit(apart, "DSDB", "0+1800 DATA 1000/800; 1800+2000 - 800/800; 3800+800 DATA2 800/0; 0:2 3:1 ");
    expectSplit(apart, "DDDX", "0+1800 DATA 1800/0; 1800+2000 - 800/0; 3800+800 DATA2; 0:2 3:1 ");
    // After text, nothing is known of the page where the unused memory ends.
    expectSplit({{0, 0x1800, kData}, {0x3400, 0x400, kText}, {0x3800, 0x800, kData2}}, "DDDD",
                "0+1800 DATA 1800/0; 1800+1c00 - 800/0; 3400+400 TEXT; 3800+800 DATA2 800/0; 0:2 3:1 ");
    // Several in one page.
    expectSplit({{0, 0x1200, kData}, {0x1400, 0x400, kData}, {0x1800, 0x2800, kData2}}, "DDXX",
                "0+1200 DATA 1200/0; 1200+200 - 200/0; 1400+400 DATA 400/0; 1800+2800 DATA2 800/0; 0:2 2:2 ");
    // Pages may be larger than the alignment of images.
    machine.pageSize = 4 * kPage;
    expectSplit({{0, 0x800, kData}, {0x1000, 0x2000, kData2}}, "D",
                "0+1000 DATA 1000/0; 1000+2000 DATA2 2000/0; 3000+1000 - 1000/0; 0:1 ");
}

TEST_F(ZBUserProcessTest, FailingPageQueryEndsTheWalk) {
    nest(8);
    baker.maps(kSharedEnd, {});
    baker.failingPageQuery = 1;
    for (const bool exited : {true, false}) {
        baker.shortRecordError = exited ? ESRCH : 0;
        expectSplit({{0, 0x1000, kData}, {0x2000, 0x1000, kData2}, {0x3000, 0x1000, kData}}, "DDDD",
                    "0+1000 DATA 1000/0; 1000+1000 -; 0:1 2:1 ");
        EXPECT_THAT(starts(), ElementsAre(kBelow, kShared, kShared + kPage));
        EXPECT_EQ(said, "mach_vm_page_range_query: failure\n" + kBailingOut);
        EXPECT_THAT(exited ? process->warnings() : process->errors(),
                    ElementsAre(std::string("baker [100]: failure") + (exited ? " (process exited)" : "")));
        EXPECT_THAT(exited ? process->errors() : process->warnings(), IsEmpty());
    }
}

}  // namespace zorbel::test
