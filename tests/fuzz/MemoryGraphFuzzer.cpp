// Whole runs on arbitrary files, from reading a memory graph to its report.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "aggregate/ZBZorbel.h"
#include "inspect/ZBMemgraphProcess.h"
#include "linux/LinuxPlatform.h"
#include "report/ZBOutputFormatterText.h"

namespace zorbel {

static LinuxPlatform& platform() {
    static StreamDiagnostics nowhere(nullptr);
    static LinuxPlatform platform(nowhere);
    return platform;
}

/// A file in memory that holds the data, and its name.
static std::string fileWith(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("graph", MFD_CLOEXEC);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
    return "/proc/self/fd/" + std::to_string(file);
}

}  // namespace zorbel

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Reports are discarded.
    return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorbel;
    auto graph = ZBMemgraphProcess::processWithMemgraph(platform(), fileWith(data, size));
    if (!graph) {
        if (graph.error().description.empty()) std::abort();
        return 0;
    }
    Targets targets;
    targets.push_back(*std::move(graph));
    ZBZorbel zorbel(platform(), std::move(targets));
    zorbel.gatherData();
    zorbel.addOutputFormatter(std::make_shared<ZBOutputFormatterText>(platform(), SummaryFormat::kBytes,
                                                                      kShowWired | kShowSwapped));
    zorbel.printOutputVerbose(true, true);
    return 0;
}
