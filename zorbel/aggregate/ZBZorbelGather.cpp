// The phases of a run between opening the targets and the report.

#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <thread>

#include "aggregate/ZBZorbel.h"

namespace zorbel {

ZBZorbel::ZBZorbel(Platform& platform, Targets processes, unsigned workers)
    : _platform(platform),
      _workers(workers != 0 ? workers : std::max(1U, std::thread::hardware_concurrency())),
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
    _inParallel(read, [](ZBProcess& process) { process.gatherData(); });
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
    _inParallel(read, [&](ZBProcess& process) {
        if (_earlyExit.load(std::memory_order_relaxed)) return;
        process.readData();
        isRead[process.ordinal()] = 1;
    });
    std::erase_if(read, [&](const ZBProcess* process) { return isRead[process->ordinal()] == 0; });
    return read;
}

void ZBZorbel::_inParallel(const std::vector<ZBProcess*>& queue,
                           const std::function<void(ZBProcess&)>& work) const {
    std::atomic<std::size_t> next = 0;
    const auto workOff = [&] {
        for (std::size_t index = next++; index < queue.size(); index = next++) work(*queue[index]);
    };
    const std::size_t workers = std::min<std::size_t>(queue.size(), _workers);
    std::vector<std::jthread> threads;
    try {
        while (threads.size() + 1 < workers) threads.emplace_back(workOff);
    } catch (const std::system_error&) {
        // If no more threads can be started, the existing ones do the work, including this one.
    }
    workOff();
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
