#include "report/ZBOutputFormatterText.h"

#include "support/Targets.h"
#include "support/TestData.h"

namespace zorbel::test {

using namespace testing;

class ZBOutputFormatterTextTest : public CoordinatorTest {
  protected:
    /// The whole report on the processes.
    std::string report(SummaryFormat format = SummaryFormat::kFormatted, OutputOptions options = 0) {
        gather();
        zorbel->addOutputFormatter(std::make_shared<ZBOutputFormatterText>(machine, format, options));
        internal::CaptureStdout();
        zorbel->printOutputVerbose(false, false);
        return internal::GetCapturedStdout();
    }
};

TEST_F(ZBOutputFormatterTextTest, ProcessesThatShareMemory) {
    const RegionInfoRecord heap{.user_tag = kMallocTiny, .pages_resident = 3, .pages_swapped_out = 1};
    const RegionInfoRecord memory{
        .user_tag = 42, .pages_resident = 2, .object_id = 8, .share_mode = kShareModeShared};
    const ScriptedRegion common{
        .pages = 4, .info = {.pages_resident = 4, .object_id = 7}, .path = Name("/lib")};
    const ScriptedRegion stack{.pages = 9,
                               .info = {.user_tag = kStack, .pages_resident = 9, .pages_reusable = 8}};
    ScriptedProcess& baker = machine.process(100, "baker");
    baker.maps(0x1000, {4, heap}).maps(0x8000, common).maps(0x10000, {2, memory});
    ScriptedProcess& miller = machine.process(200, "miller");
    miller.maps(0x1000, common).maps(0x10000, {2, memory}).maps(0x20000, stack);
    for (ScriptedProcess* process : {&baker, &miller}) process->kernelMemory.total_palloc = 10240;
    machine.process(300, "clerk").maps(0x1000, common).flags = 0;
    EXPECT_EQ(report(), testData("report-of-shared-memory.txt"));
}

TEST_F(ZBOutputFormatterTextTest, OneProcessWithAllColumns) {
    RegionInfoRecord heap{.user_tag = kMallocTiny, .pages_resident = 30, .pages_swapped_out = 5};
    heap.user_wired_count = 3;
    machine.process(100, "baker")
        .maps(0x1000, {40, heap})
        .maps(0x800000, {3, {.pages_resident = 2, .pages_dirtied = 1}, Name("/bin/baker")});
    EXPECT_EQ(report(SummaryFormat::kBytes, kShowSwapped | kShowWired),
              testData("report-with-all-columns.txt"));
}

TEST_F(ZBOutputFormatterTextTest, WarningsErrorsAndAuxiliaryData) {
    using Entries = ZBAuxDataDictionary::Entries;
    const auto tree = [](Entries entries) {
        return std::make_shared<ZBAuxDataDictionary>(std::move(entries));
    };
    const auto figure = [](std::int64_t value, bool sums) {
        return std::make_shared<ZBAuxData>(value, sums);
    };
    const auto figures =
        tree({{"deep", tree({{"debt", figure(-20480, true)}, {"fund", figure(10000, true)}})},
              {"own", figure(9999, false)}});
    FixedProcess& broken = fixed(3);
    broken.add("heap", 10, 4096);
    broken._warnings = {"odd"};
    broken._errors = {"broken", "very"};
    fixed(2)._warnings = {"odd"};
    for (const std::int32_t pid : {1, 0}) fixed(pid);
    for (const auto& process : processes) static_cast<FixedProcess&>(*process).figures = figures;
    static_cast<FixedProcess&>(*processes.back()).figures = nullptr;
    ZBProcess::_addGlobalError("interrupted");
    EXPECT_EQ(report(), testData("report-of-trouble.txt"));
}

TEST_F(ZBOutputFormatterTextTest, GroupsOfUpToTwentyMembersAreListedByName) {
    const auto titleOfFirst = [this](std::int32_t members) {
        for (std::int32_t pid = 1; pid <= members; ++pid) fixed(pid).add("heap", 10, 1);
        const std::string text = report();
        const std::size_t start = text.find("Shared with", text.find("fixed1 [1]: "));
        return text.substr(start, text.find('\n', start) - start);
    };
    std::string names;
    for (int pid = 2; pid <= 20; ++pid)
        names += (pid == 2 ? " fixed" : ", fixed") + std::to_string(pid) + " [" + std::to_string(pid) + "]";
    EXPECT_EQ(titleOfFirst(20), "Shared with" + names + ":");
    EXPECT_EQ(titleOfFirst(21), "Shared with 21 processes:");
}

TEST_F(ZBOutputFormatterTextTest, SizesInEachStyle) {
    const std::tuple<SummaryFormat, std::uint64_t, const char*> rows[] = {
        {SummaryFormat::kFormatted, 9999, "9999 B"},       {SummaryFormat::kFormatted, 10000, "10 KB"},
        {SummaryFormat::kFormatted, 12345678, "12 MB"},    {SummaryFormat::kFormatted, 1ULL << 30, "1024 MB"},
        {SummaryFormat::kFormatted, 10ULL << 50, "10 PB"}, {SummaryFormat::kBytes, ~0ULL, "-1 B"},
        {SummaryFormat::kPages, 4096, "1 pages"},          {SummaryFormat::kPages, 4097, "2 pages"},
    };
    for (const auto& [format, bytes, text] : rows) {
        fixed(1).add("heap", 10, bytes);
        EXPECT_THAT(report(format), HasSubstr("\tZorbel: " + std::string(text) + " (4096"));
    }
}

TEST_F(ZBOutputFormatterTextTest, ListingHasALineForEachRegion) {
    FixedProcess& process = fixed(5);
    process.add("later", 0x123456789ABC, 1).setStart(0x2000);
    process.add("inner", 1, 0).setStart(0x1000);
    ZBMemoryRegion& outer = process.add("outer", 0, 3 * kPage);
    outer.setStart(0x1000);
    outer.setSize(12345678 * std::uint64_t{kPage});
    outer.setSwappedSize(1);
    outer.setCleanNonSpecSize(2 * kPage);
    outer.setReclaimableSize(kPage + 1);
    outer.setWiredSize(5 * kPage);
    outer.setDetailedName(Name("/a b"));
    fixed(4);
    const auto listing = [this](OutputOptions options) {
        zorbel->addOutputFormatter(
            std::make_shared<ZBOutputFormatterText>(machine, SummaryFormat::kBytes, options));
        internal::CaptureStdout();
        zorbel->printOutputVerbose(true, false);
        const std::string text = internal::GetCapturedStdout();
        return text.substr(0, text.find('='));
    };
    gather();
    EXPECT_EQ(listing(0), testData("listing.txt"));
    EXPECT_THAT(listing(kShowSwapped | kShowWired),
                AllOf(HasSubstr("VRT     DRT     SWP     CLN     RCL    WIRE   tag (detail)\n"),
                      HasSubstr(" 12345678       4       1       2       2       5   outer")));
}

}  // namespace zorbel::test
