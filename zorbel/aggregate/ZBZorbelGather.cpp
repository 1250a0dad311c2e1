// How ZBZorbel gathers its processes.

#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <thread>

#include "aggregate/ZBZorbel.h"

namespace zorbel {

ZBZorbel::ZBZorbel(std::vector<std::unique_ptr<ZBProcess>> processes) : _processes(std::move(processes)) {}

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
    _gatherProcesses();
    if (_earlyExit)
        ZBProcess::_addGlobalError("Zorbel exited early due to SIGINT and did not finish gathering all data");
    for (const auto& process : _processes) _addProcess(*process);
    _calculateSizes();
    _buildProcessToZorbelMap();
}

/// Works off the processes with as many threads as there are processors, this one included.
void ZBZorbel::_gatherProcesses() {
    const std::vector<ZBProcess*> queue = _getProcessListSortedByPidDesc();
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        for (std::size_t index = next++; index < queue.size(); index = next++)
            if (!_earlyExit.load(std::memory_order_relaxed)) queue[index]->gatherData();
    };
    const std::size_t workers = std::min<std::size_t>(queue.size(), std::thread::hardware_concurrency());
    std::vector<std::jthread> threads;
    try {
        while (threads.size() + 1 < workers) threads.emplace_back(work);
    } catch (const std::system_error&) {
        // On a machine that has no thread left to give, those that there are do the work.
    }
    work();
}

void ZBZorbel::addOutputFormatter(std::shared_ptr<ZBOutputFormatter> formatter) {
    _outputFormatters.push_back(std::move(formatter));
}

}  // namespace zorbel
