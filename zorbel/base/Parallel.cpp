#include "base/Parallel.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace zorbel {

unsigned processorCount() { return std::max(1U, std::thread::hardware_concurrency()); }

void inParallel(std::size_t count, unsigned workers, const std::function<void(std::size_t)>& work) {
    std::atomic<std::size_t> next = 0;
    const auto workOff = [&] {
        for (std::size_t index = next++; index < count; index = next++) work(index);
    };
    const std::size_t threadCount = std::min<std::size_t>(count, workers);
    std::vector<std::jthread> threads;
    try {
        while (threads.size() + 1 < threadCount) threads.emplace_back(workOff);
    } catch (const std::system_error&) {
        // The threads that there are do the work.
    }
    workOff();
}

}  // namespace zorbel
