#include "report/ZBOutputFormatterText.h"

#include "support/ScriptedPlatform.h"

namespace zorbel::test {

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

    static std::string header(const std::string& text) { return rule + "\n" + text + "\n" + rule + "\n\n"; }
    static std::string table(const std::string& rows, const std::string& total) {
        const std::string dashes = "    ---        ---          ---        ---    ---\n";
        return "  Dirty      Clean  Reclaimable    Regions    Category\n" + dashes + rows + dashes + total +
               "    TOTAL\n\n";
    }

    static inline const std::string rule = std::string(70, '=');
};

TEST_F(ZBOutputFormatterTextTest, ProcessesThatShareMemory) {
    const RegionInfoRecord heap{.user_tag = kMallocTiny, .pages_resident = 3, .pages_swapped_out = 1};
    const RegionInfoRecord memory{
        .user_tag = 42, .pages_resident = 2, .object_id = 8, .share_mode = kShareModeShared};
    const ScriptedRegion common{
        .pages = 4, .info = {.pages_resident = 4, .object_id = 7}, .path = Name("/lib")};
    const ScriptedRegion stack{.pages = 9,
                               .info = {.user_tag = kStack, .pages_resident = 9, .pages_reusable = 8}};
    machine.process(100, "baker").maps(0x1000, {4, heap}).maps(0x8000, common).maps(0x10000, {2, memory});
    machine.process(200, "miller").maps(0x1000, common).maps(0x10000, {2, memory}).maps(0x20000, stack);
    machine.process(300, "clerk").maps(0x1000, common).flags = 0;
    const std::string pair = table(" 8192 B        0 B          0 B          2    shared anonymous memory\n",
                                   " 8192 B        0 B          0 B          2");
    const std::string trio = table("    0 B      16 KB          0 B          3    mapped file\n",
                                   "    0 B      16 KB          0 B          3");
    const std::string all = header("baker [100]: 64-bit\tZorbel: 24 KB (4096 bytes per page)") +
                            table("  16 KB        0 B          0 B          1    MALLOC_TINY\n",
                                  "  16 KB        0 B          0 B          1") +
                            "Shared with miller [200]:\n" + pair +
                            "Shared with miller [200], clerk [300]:\n" + trio +
                            header("miller [200]: 64-bit\tZorbel: 12 KB (4096 bytes per page)") +
                            table(" 4096 B        0 B        32 KB          1    stack\n",
                                  " 4096 B        0 B        32 KB          1") +
                            "Shared with baker [100]:\n" + pair + "Shared with baker [100], clerk [300]:\n" +
                            trio + header("clerk [300]: 32-bit\tZorbel: 0 B (4096 bytes per page)") +
                            "Shared with baker [100], miller [200]:\n" + trio +  //
                            header("Summary Zorbel: 28 KB") +
                            table(
                                "  16 KB        0 B          0 B          1    MALLOC_TINY\n"
                                " 8192 B        0 B          0 B          2    shared anonymous memory\n"
                                " 4096 B        0 B        32 KB          1    stack\n"
                                "    0 B      16 KB          0 B          3    mapped file\n",
                                "  28 KB      16 KB        32 KB          7");
    EXPECT_EQ(report(), all);
}

TEST_F(ZBOutputFormatterTextTest, OneProcessWithAllColumns) {
    RegionInfoRecord heap{.user_tag = kMallocTiny, .pages_resident = 30, .pages_swapped_out = 5};
    heap.user_wired_count = 3;
    machine.process(100, "baker")
        .maps(0x1000, {40, heap})
        .maps(0x800000, {3, {.pages_resident = 2, .pages_dirtied = 1}, Name("/bin/baker")});
    const std::string wide(90, '=');
    EXPECT_EQ(
        report(SummaryFormat::kBytes, kShowSwapped | kShowWired),
        wide + "\nbaker [100]: 64-bit\tZorbel: 147456 B (4096 bytes per page)\n" + wide +
            "\n\n"
            "      Dirty     (Swapped)         Clean   Reclaimable       (Wired)    Regions    Category\n"
            "        ---           ---           ---           ---           ---        ---    ---\n"
            "   143360 B       20480 B           0 B           0 B       12288 B          1    MALLOC_TINY\n"
            "     4096 B           0 B        4096 B           0 B           0 B          1    mapped file\n"
            "        ---           ---           ---           ---           ---        ---    ---\n"
            "   147456 B       20480 B        4096 B           0 B       12288 B          2    TOTAL\n\n");
}

TEST_F(ZBOutputFormatterTextTest, WarningsErrorsAndFurtherFigures) {
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
    const std::string total = "\tZorbel: 0 B (4096 bytes per page)";
    const std::string own = "Auxiliary data:\n\tdeep:\n\t\tdebt: -20 KB\n\t\tfund: 10 KB\n\town: 9999 B\n\n";
    EXPECT_EQ(
        report(),
        header("fixed3 [3]: 64-bit\nWarnings were encountered while examining the process.\n\todd\n"
               "\nErrors were encountered while examining the process. No results gathered.\n"
               "\tbroken\n\tvery") +
            header("fixed2 [2]: 64-bit\nWarnings were encountered while examining the process.\n\todd\n" +
                   total) +
            own + header("fixed1 [1]: 64-bit" + total) + own + header("fixed0 [0]: 64-bit" + total) +
            "\nWarnings were encountered while examining the following processes:\n"
            "\tfixed3\n\tfixed2\n"
            "\nErrors were encountered while examining the following processes:\n\tfixed3\n"
            "\nErrors were encountered:\n\tinterrupted\n"
            "\nDue to errors, summary results may be invalid\n" +
            header("Summary Zorbel: 4096 B (may be invalid due to errors)") +
            table(" 4096 B        0 B          0 B          1    heap\n",
                  " 4096 B        0 B          0 B          1") +
            "Auxiliary data:\n\tdeep:\n\t\tdebt: -40 KB\n\t\tfund: 20 KB\n\n");
}

TEST_F(ZBOutputFormatterTextTest, GroupsOfMoreThanTwentyAreOnlyCounted) {
    for (const std::int32_t members : {20, 21}) {
        for (std::int32_t pid = 1; pid <= members; ++pid) fixed(pid).add("heap", 10, 1);
        EXPECT_EQ(report().find("Shared with 21 processes:\n") != std::string::npos, members == 21);
    }
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
    const std::string end =
        "\n"
        "fixed4 [4]\n\n"
        "           start                end  [objectid]      VRT     DRT     CLN     RCL   tag (detail)\n"
        "      ----------         ----------  ----------    -----   -----   -----   -----   ------------\n\n";
    EXPECT_EQ(
        listing(0),
        "fixed5 [5]\n\n" + end.substr(end.find("  "), end.size() - end.find("  ") - 1) +
            "            1000 -        bc614f000 [         0] 12345678       4       2       2   outer "
            "/a b\n"
            "            1000 -             2000 [         1]       1       0       0       0   inner \n"
            "            2000 -             3000 [3456789abc]       1       1       0       0   later \n" +
            end);
    EXPECT_THAT(listing(kShowSwapped | kShowWired),
                AllOf(HasSubstr("VRT     DRT     SWP     CLN     RCL    WIRE   tag (detail)\n"),
                      HasSubstr(" 12345678       4       1       2       2       5   outer")));
}

}  // namespace zorbel::test
