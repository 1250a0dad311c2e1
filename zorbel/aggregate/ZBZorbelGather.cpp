// The phases of a run between opening the targets and the report.

#include <unistd.h>

#include <algorithm>

#include "aggregate/ZBZorbel.h"
#include "base/Parallel.h"

namespace zorbel {

ZBZorbel::ZBZorbel(Platform& platform, Targets processes, unsigned workers)
    : _platform(platform),
      _workers(workers != 0 ? workers : processorCount()),
      _processes(std::move(processes)) {
    for (std::size_t i = 0; i < _processes.size(); ++i) _processes[i]->setOrdinal(i);
}

std::unique_ptr<CancelHandler> ZBZorbel::installCancelHandler(std::function<void()> handler) {
    if (isatty(STDOUT_FILENO) != 0) return nullptr;
    return std::make_unique<CancelHandler>(std::move(handler));
}

std::vector<ZBProcess*> ZBZorbel::_getProcessListSortedByPidDesc() const {
    std::vector<ZBProcess*> sorted;
    sorted.reserve(_processes.size());
    for (const auto& process : _processes) sorted.push_back(process.get());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const ZBProcess* a, const ZBProcess* b) { return a->pid() > b->pid(); });
    return sorted;
}

void ZBZorbel::gatherData() {
    const std::vector<ZBProcess*> read = _readProcesses();
    _platform.settleTasks();
    // Lowest pid first: the kernel takes the longest of all, and nothing is left to do beside it at the end.
    inParallel(read.size(), _workers, [&](std::size_t index) {
        ZBProcess& process = *read[read.size() - 1 - index];
        if (_gathersDetails) process.gatherDetails();
        process.gatherData();
    });
    for (ZBProcess* process : read) process->reportMessages();
    if (_earlyExit)
        ZBProcess::_addGlobalError("Zorbel exited early due to SIGINT and did not finish gathering all data");
    _attribute();
}

// An early exit skips only processes that are not read yet. Those that were read are also walked: that is
// fast, and otherwise the reading would be wasted.
std::vector<ZBProcess*> ZBZorbel::_readProcesses() {
    std::vector<ZBProcess*> read = _getProcessListSortedByPidDesc();
    std::vector<char> isRead(read.size());  // By ordinal; each element is written by one worker.
    inParallel(read.size(), _workers, [&](std::size_t index) {
        if (_earlyExit.load(std::memory_order_relaxed)) return;
        read[index]->readData();
        isRead[read[index]->ordinal()] = 1;
    });
    std::erase_if(read, [&](const ZBProcess* process) { return isRead[process->ordinal()] == 0; });
    return read;
}

void ZBZorbel::_attribute() {
    for (const auto& process : _processes) _addProcess(*process);
    _calculateSizes();
    _buildProcessToZorbelMap();
}

void ZBZorbel::addOutputFormatter(std::shared_ptr<ZBOutputFormatter> formatter) {
    _outputFormatters.push_back(std::move(formatter));
}

}  // namespace zorbel
