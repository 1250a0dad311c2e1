// The listing of an address space, one line for each region.

#include <cinttypes>

#include "report/ZBOutputFormatterText.h"

namespace zorbel {

namespace {

/// As much of an object id as fits into its column.
constexpr std::uint64_t kObjectIdMask = 0xFF'FFFF'FFFF;

}  // namespace

void ZBOutputFormatterText::printLattixLikeOutputForProcess(
    const ZBProcess& process, const std::vector<const ZBMemoryRegion*>& regions) {
    const bool showsSwapped = _shows(kShowSwapped);
    const bool showsWired = _shows(kShowWired);
    std::fprintf(_output, "%s\n\n", process.displayString().c_str());
    std::fprintf(_output,
                 "           start                end  [objectid]      VRT     DRT%s     CLN     RCL%s"
                 "   tag (detail)\n",
                 showsSwapped ? "     SWP" : "", showsWired ? "    WIRE" : "");
    std::fprintf(_output,
                 "      ----------         ----------  ----------    -----   -----%s   -----   -----%s"
                 "   ------------\n",
                 showsSwapped ? "   -----" : "", showsWired ? "   -----" : "");
    for (const ZBMemoryRegion* region : regions) _printListingRow(*region, process.pageSize());
    std::fputs("\n", _output);
}

void ZBOutputFormatterText::_printListingRow(const ZBMemoryRegion& region, std::uint64_t pageSize) {
    const auto printPages = [&](std::uint64_t size) {
        std::fprintf(_output, " %7" PRIu64, (size + pageSize - 1) / pageSize);
    };
    std::fprintf(_output, "%16" PRIx64 " - %16" PRIx64 " [%10" PRIx64 "]", region.start(), region.end(),
                 region.object_id() & kObjectIdMask);
    printPages(region.size());
    printPages(region.dirtySize() + region.swappedSize());
    if (_shows(kShowSwapped)) printPages(region.swappedSize());
    printPages(region.cleanNonSpecSize());
    printPages(region.reclaimableSize());
    if (_shows(kShowWired)) printPages(region.wiredSize());
    std::fprintf(_output, "   %s %s\n", region.name().c_str(), region.detailedName().c_str());
}

}  // namespace zorbel
