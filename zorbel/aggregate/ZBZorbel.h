#pragma once

#include <atomic>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "aggregate/CancelHandler.h"
#include "aggregate/ZBZorbelSharingData.h"
#include "inspect/ZBProcess.h"
#include "model/ZBMemoryCategory.h"
#include "model/ZBMemoryObject.h"

namespace zorbel {

class ZBOutputFormatter;

using Categories = std::unordered_map<Name, std::shared_ptr<ZBMemoryCategory>>;

/// Coordinates one run: gathers all processes in parallel, attributes their regions to memory objects, and
/// calls the formatters. The zorbel of a process is the dirty and swapped bytes of all objects that it maps.
///
/// Gather once, then print once. Only the reading and walking of single processes happens on workers. The
/// source files: ZBZorbelGather.cpp, ZBZorbelAttribution.cpp and ZBZorbelCategories.cpp are next to this
/// header, ZBZorbelReport.cpp is in report/.
class ZBZorbel {
  public:
    /// The processes are in the order of selection and get their index as ordinal. workers is the number of
    /// threads; 0 means as many as processors.
    explicit ZBZorbel(Platform& platform, Targets processes, unsigned workers = 0);
    ZBZorbel(const ZBZorbel&) = delete;
    ZBZorbel& operator=(const ZBZorbel&) = delete;

    /// Calls the handler on SIGINT, on a separate thread, as long as the result lives. Null if standard
    /// output is a terminal: there SIGINT ends the tool as usual.
    static std::unique_ptr<CancelHandler> installCancelHandler(std::function<void()> handler);

    /// Makes gathering skip processes that it has not started to read. Callable from any thread.
    void cancel() { _earlyExit.store(true, std::memory_order_relaxed); }

    /// Makes gathering find out what tells processes with the same name apart.
    void setGathersDetails(bool gathers) { _gathersDetails = gathers; }

    /// Runs the phases from reading to attribution: reads all targets, settles what depends on all of them,
    /// walks each, and attributes its memory. cancel() adds a global error.
    void gatherData();

    void addOutputFormatter(std::shared_ptr<ZBOutputFormatter> formatter);

    /// Sends the whole report to each formatter; if verbose, preceded by the listings of all address spaces.
    /// If summarize is set, small categories are merged into "Other".
    void printOutputVerbose(bool verbose, bool summarize);
    /// Sends the listing of each process to each formatter.
    void printLattixLikeOutputForProcesses(const std::vector<const ZBProcess*>& processes);

    [[nodiscard]] const Targets& processes() const { return _processes; }

    // Steps and views, in the order of a run.

    [[nodiscard]] std::vector<ZBProcess*> _getProcessListSortedByPidDesc() const;
    void _addProcess(ZBProcess& process);
    void _calculateSizes();
    /// Dirty and swapped bytes of all objects that the process maps, each counted once.
    [[nodiscard]] std::uint64_t _calculateZorbelForProcess(const ZBProcess& process) const;
    void _buildProcessToZorbelMap();
    /// Bytes; 0 before the map is built.
    [[nodiscard]] std::uint64_t _zorbelOf(const ZBProcess& process) const;
    [[nodiscard]] ZBZorbelSharingData _sharingData();
    /// By descending zorbel, then descending pid, then in the order of selection.
    [[nodiscard]] std::vector<const ZBProcess*> _getProcessListSortedByZorbel() const;

    /// The objects, grouped by name.
    [[nodiscard]] static Categories _categoriesForObjects(const std::vector<ZBMemoryObject*>& objects);
    /// All objects of the run, each once, grouped by the name of the first region that maps it.
    [[nodiscard]] Categories _categoriesForAllProcesses() const;
    /// The categories to print, and the totals of all categories, including merged ones. If summarize is set,
    /// "Other" replaces image segments of at most 1 MiB (dirty + swapped) and other categories without any,
    /// except purgeable non-volatile ones with clean memory.
    [[nodiscard]] static Categories _summarizedCategoriesForCategories(const Categories& categories,
                                                                       bool summarize, SizeTotals& outTotal);
    /// By descending dirty + swapped size, then reclaimable size, then clean size, then by name.
    [[nodiscard]] static std::vector<Name> _sortedKeysForCategories(const Categories& categories);

  private:
    /// Key: object id, or address in the shared cache.
    using ObjectTable = boost::unordered_flat_map<std::uint64_t, ZBMemoryObject*>;

    /// Separate tables, because the same id in two of them means different memory.
    struct ObjectTables {
        ObjectTable _memoryObjects;  ///< Also what processes share after a fork, and files that are memory.
        ObjectTable _sharedCache64MemoryObjects;
        ObjectTable _sharedCache32MemoryObjects;
        ObjectTable _textMemoryObjects;
        ObjectTable _linkeditMemoryObjects;

        [[nodiscard]] ObjectTable& tableForRegion(const ZBProcess& process, const ZBMemoryRegion& region);
    };

    ZBMemoryObject& _newObject();
    void _attribute();
    /// Reads the processes; returns those that were read before an early exit.
    std::vector<ZBProcess*> _readProcesses();

    struct GroupSummary;
    class GroupSummaries;
    void _printProcess(const ZBProcess& process, const GroupSummaries& summaries);

    Platform& _platform;
    unsigned _workers;
    Targets _processes;
    std::vector<std::uint64_t> _processToZorbel;  ///< By ordinal.
    /// All objects of the run. The tables only find objects that several processes may map.
    std::deque<ZBMemoryObject> _objects;
    ObjectTables _objectTables;
    std::vector<std::shared_ptr<ZBOutputFormatter>> _outputFormatters;
    bool _gathersDetails = false;
    std::atomic<bool> _earlyExit = false;
};

}  // namespace zorbel
