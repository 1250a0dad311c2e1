#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "aggregate/ZBZorbel.h"
#include "inspect/ZBProcess.h"

namespace zorbel {

/// Renders a report. The order of calls: first the listings of all address spaces, if requested. Then for
/// each process, by descending zorbel: the header pair with the total in between (no total if the process has
/// errors); if it has no errors, its own categories, one call for each group that it shares memory with, and
/// its auxiliary data. After all processes: warnings and errors, the summary, the merged auxiliary data, and
/// `end`, once.
///
/// Sizes are bytes. Sorted keys give the order of the categories. Arguments are valid only during the call.
class ZBOutputFormatter {
  public:
    ZBOutputFormatter() = default;
    ZBOutputFormatter(const ZBOutputFormatter&) = delete;
    ZBOutputFormatter& operator=(const ZBOutputFormatter&) = delete;
    virtual ~ZBOutputFormatter() = default;

    virtual void printProcessHeader(const ZBProcess& process) = 0;
    virtual void endProcessHeader(const ZBProcess& process) = 0;
    virtual void printProcessTotal(std::uint64_t zorbel, const ZBProcess& process) = 0;
    virtual void printProcessCategories(const Categories& categories, const std::vector<Name>& sortedKeys,
                                        const SizeTotals& total) = 0;
    /// auxData may be null.
    virtual void printProcessAuxData(const ZBAuxDataDictionary* auxData) = 0;
    virtual void printProcessesWithWarnings(const std::vector<const ZBProcess*>& processesWithWarnings,
                                            const std::vector<const ZBProcess*>& processesWithErrors,
                                            const std::vector<std::string>& globalErrors) = 0;
    virtual void printSummaryCategories(const Categories& categories, const std::vector<Name>& sortedKeys,
                                        const SizeTotals& total, bool hadErrors) = 0;
    /// auxData may be null.
    virtual void printGlobalAuxData(const ZBAuxDataDictionary* auxData) = 0;
    virtual void end() = 0;

    /// What the process shares with exactly the other members of the group. The default shows nothing.
    virtual void printSharedCategories(const Categories& /*categories*/,
                                       const std::vector<Name>& /*sortedKeys*/,
                                       const ProcessGroup& /*sharedWith*/, const ZBProcess& /*process*/,
                                       const SizeTotals& /*total*/) {}

    /// The address space of a process, its regions by ascending start. The default shows nothing.
    virtual void printLattixLikeOutputForProcess(const ZBProcess& /*process*/,
                                                 const std::vector<const ZBMemoryRegion*>& /*regions*/) {}
};

}  // namespace zorbel
