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

/// The coordinator of one run: gathers all processes in parallel, folds their regions into the memory objects
/// that they share, and drives the formatters over the result. Its zorbel, for each process, is the dirty and
/// swapped bytes of every object that the process maps.
///
/// Created, gathered once, printed once. Everything but the gathering of single processes happens on the
/// calling thread. The sources follow the subjects: ZBZorbelGather.cpp, ZBZorbelAttribution.cpp and
/// ZBZorbelCategories.cpp beside this header, ZBZorbelReport.cpp in report/.
class ZBZorbel {
  public:
    /// The processes come in the order of selection, which their ordinals keep from now on. Without a number
    /// of workers there are as many as processors.
    explicit ZBZorbel(Platform& platform, Targets processes, unsigned workers = 0);
    ZBZorbel(const ZBZorbel&) = delete;
    ZBZorbel& operator=(const ZBZorbel&) = delete;

    /// Has SIGINT call the handler, on a thread of its own, for as long as the result lives. Null when
    /// standard output is a terminal: there an interrupt ends the tool as ever.
    static std::unique_ptr<CancelHandler> installCancelHandler(std::function<void()> handler);

    /// Makes gathering skip the processes that it has not begun. From any thread.
    void cancel() { _earlyExit.store(true, std::memory_order_relaxed); }

    /// The phases between opening the targets and the report: reads all targets, settles what depends on all
    /// of them, walks each, and attributes its memory. An early exit becomes a global error.
    void gatherData();

    void addOutputFormatter(std::shared_ptr<ZBOutputFormatter> formatter);

    /// Sends the whole report to each formatter, verbose with the listings of all address spaces before it.
    /// Summarizing folds small categories into "Other".
    void printOutputVerbose(bool verbose, bool summarize);
    /// Sends the listing of each process to each formatter.
    void printLattixLikeOutputForProcesses(const std::vector<const ZBProcess*>& processes);

    [[nodiscard]] const Targets& processes() const { return _processes; }

    // Steps and views, in the order in which a run takes them.

    [[nodiscard]] std::vector<ZBProcess*> _getProcessListSortedByPidDesc() const;
    void _addProcess(ZBProcess& process);
    void _calculateSizes();
    /// Dirty and swapped bytes of every object that the process maps, each once.
    [[nodiscard]] std::uint64_t _calculateZorbelForProcess(const ZBProcess& process) const;
    void _buildProcessToZorbelMap();
    /// Bytes; 0 before the map is built.
    [[nodiscard]] std::uint64_t _zorbelOf(const ZBProcess& process) const;
    [[nodiscard]] ZBZorbelSharingData _sharingData();
    /// Largest zorbel first, of equal ones the highest pid, and then in the order of selection.
    [[nodiscard]] std::vector<const ZBProcess*> _getProcessListSortedByZorbel() const;

    /// The objects under their names.
    [[nodiscard]] static Categories _categoriesForObjects(const std::vector<ZBMemoryObject*>& objects);
    /// Every object of the run, once, under the name of the first region that maps it.
    [[nodiscard]] Categories _categoriesForAllProcesses() const;
    /// The categories as they are to be printed, and the sums over all of them, folded ones included. When
    /// summarizing, image segments of at most 1 MiB and categories without dirty memory fold into "Other".
    [[nodiscard]] static Categories _summarizedCategoriesForCategories(const Categories& categories,
                                                                       bool summarize, SizeTotals& outTotal);
    /// By descending dirty + swapped size, then reclaimable size, then clean size, then by name.
    [[nodiscard]] static std::vector<Name> _sortedKeysForCategories(const Categories& categories);

  private:
    /// Object id, or address in the shared cache, to object.
    using ObjectTable = boost::unordered_flat_map<std::uint64_t, ZBMemoryObject*>;

    /// The same id may stand for different memory in different tables.
    struct ObjectTables {
        ObjectTable _memoryObjects;
        ObjectTable _sharedCache64MemoryObjects;
        ObjectTable _sharedCache32MemoryObjects;
        ObjectTable _textMemoryObjects;
        ObjectTable _linkeditMemoryObjects;

        [[nodiscard]] ObjectTable& tableForRegion(const ZBProcess& process, const ZBMemoryRegion& region);
    };

    ZBMemoryObject& _newObject();
    void _attribute();
    /// Calls with each process of a list, on all workers, in the order of the list.
    void _inParallel(const std::vector<ZBProcess*>& queue, const std::function<void(ZBProcess&)>& work) const;
    /// The processes that were read before an early exit.
    std::vector<ZBProcess*> _readProcesses();

    struct GroupSummary;
    class GroupSummaries;
    void _printProcess(const ZBProcess& process, const GroupSummaries& summaries);

    Platform& _platform;
    unsigned _workers;
    Targets _processes;
    std::vector<std::uint64_t> _processToZorbel;  ///< By ordinal.
    /// Every object of the run; the tables only find those that regions of several processes may map.
    std::deque<ZBMemoryObject> _objects;
    ObjectTables _objectTables;
    std::vector<std::shared_ptr<ZBOutputFormatter>> _outputFormatters;
    std::atomic<bool> _earlyExit = false;
};

}  // namespace zorbel
