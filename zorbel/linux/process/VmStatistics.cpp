#include "linux/process/VmStatistics.h"

#include "base/TextCursor.h"

namespace zorbel {

VmStatistics parseVmStatistics(std::string_view text) {
    std::uint64_t listed = 0;
    std::uint64_t cached = 0;
    std::uint64_t notListed =
        0;  // Of the page cache: shared memory is on other lists, and so are copies of swap.
    VmStatistics result;
    while (!text.empty()) {
        std::string_view line = takeLine(text);
        const std::string_view name = takeWord(line);
        const std::uint64_t value = takeNumber(line).value_or(0);
        if (name == "nr_inactive_file" || name == "nr_active_file" || name == "nr_isolated_file")
            listed += value;
        if (name == "nr_file_pages") cached = value;
        if (name == "nr_shmem" || name == "nr_swapcached") notListed += value;
        if (name == "nr_mlock") result.lockedPages = value;
        if (name == "pglazyfree") result.hasLazyPages = value != 0;
    }
    if (listed + notListed > cached) result.lazyPages = listed + notListed - cached;
    return result;
}

}  // namespace zorbel
