#include "report/ZBOutputFormatterJSON.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <fstream>

#include "support/Targets.h"
#include "support/TestData.h"

namespace zorbel::test {

using namespace testing;

class ZBOutputFormatterJSONTest : public CoordinatorTest {
  protected:
    /// Expects a report to replace the content of its file, and to equal the expected document,
    /// without white space.
    void expectDocument(const std::string& name) {
        gather();
        const std::string path = TempDir() + "report-" + std::to_string(getpid()) + ".json";
        std::ofstream(path) << std::string(100000, 'x');
        zorbel->addOutputFormatter(std::make_shared<ZBOutputFormatterJSON>(machine, path));
        zorbel->printOutputVerbose(true, false);
        const std::string text = contentsOf(path);
        EXPECT_EQ(boost::json::parse(text), boost::json::parse(testData(name)));
        EXPECT_EQ(text, boost::json::serialize(boost::json::parse(text)));
        std::remove(path.c_str());
    }
};

TEST_F(ZBOutputFormatterJSONTest, ProcessesThatShareMemory) {
    const ScriptedRegion common{
        .pages = 4, .info = {.pages_resident = 4, .object_id = 7}, .path = Name("/lib")};
    ScriptedRegion stack{.pages = 9, .info = {.user_tag = kStack, .pages_resident = 9}};
    stack.info.pages_swapped_out = 1;
    stack.info.pages_reusable = 2;
    stack.info.user_wired_count = 3;
    ScriptedProcess& hostile = machine.process(100, "b\"\\ \xC3\xA4\n");
    hostile.maps(0x1000, common).maps(0x10000, stack).kernelMemory = {5, 2, 9, 0};
    machine.process(200, "miller").maps(0x1000, common).charges = {4096, 8192};
    machine.breakDownMode = 1;
    expectDocument("report-of-shared-memory.json");
}

TEST_F(ZBOutputFormatterJSONTest, ErrorsAndLargestFigures) {
    machine.pageSize = 1;  // Unlike that of the first process.
    fixed(-2).add("total", 10, UINT64_MAX - 5).setSwappedSize(5);
    static_cast<FixedProcess&>(*processes.back())._warnings = {"odd"};
    FixedProcess& broken = fixed(1);
    broken.add("heap", 11, 0);
    broken._warnings = {"queer"};
    broken._errors = {"broken", "very"};
    broken.figures = std::make_shared<ZBAuxDataDictionary>();
    ZBProcess::_addGlobalError("interrupted");
    expectDocument("report-of-trouble.json");
}

}  // namespace zorbel::test
