// A process with much memory that measures how long it has to wait for the kernel when it changes its address
// space, or when it touches new memory, while others look at it. For bench/stall.
//
//     stall-victim map|fault GIB SECONDS
//
// Says "ready" when it has its memory. Measures for so many seconds for each line on its standard input, and
// prints how many operations there were, and the 50th, 99th and 99.9th percentile and the maximum of their
// times in milliseconds.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const std::size_t kPageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
constexpr std::size_t kMostPerSecond = 2'000'000;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

char* map(std::size_t size) {
    void* start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start == MAP_FAILED) fail("mmap");
    return static_cast<char*>(start);
}

void mapAndUnmap() {
    if (munmap(map(kPageSize), kPageSize) != 0) fail("munmap");
}

/// Gives back a page and touches it again, always another one.
void fault(char* memory, std::size_t size) {
    static std::uint64_t state = 1;
    state = state * 6364136223846793005U + 1442695040888963407U;  // Knuth's MMIX generator.
    char* page = memory + (state >> 20) % (size / kPageSize) * kPageSize;
    if (madvise(page, kPageSize, MADV_DONTNEED) != 0) fail("madvise");
    *page = 1;
}

void print(std::vector<std::uint32_t>& nanoseconds, std::size_t count) {
    const auto end = nanoseconds.begin() + static_cast<std::ptrdiff_t>(count);
    std::sort(nanoseconds.begin(), end);
    std::printf("%zu", count);
    for (const double share : {0.5, 0.99, 0.999, 1.0})
        std::printf(" %.4f",
                    nanoseconds[static_cast<std::size_t>(share * static_cast<double>(count - 1))] / 1e6);
    std::printf("\n");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string mode = argc == 4 ? argv[1] : "";
    if (mode != "map" && mode != "fault") {
        std::fprintf(stderr, "Usage: stall-victim map|fault GIB SECONDS\n");
        return 1;
    }
    const std::size_t size = std::strtoul(argv[2], nullptr, 10) << 30;
    const std::size_t seconds = std::strtoul(argv[3], nullptr, 10);
    char* memory = map(size);
    if (madvise(memory, size, MADV_NOHUGEPAGE) != 0) fail("madvise");
    for (std::size_t i = 0; i < size; i += kPageSize) memory[i] = 1;
    // All touched before, so that it is not this that is measured. A time of more than 4 s counts as 4 s.
    std::vector<std::uint32_t> nanoseconds(seconds * kMostPerSecond, 1);
    std::printf("ready\n");
    std::fflush(stdout);

    for (std::string line; std::getline(std::cin, line);) {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
        std::size_t count = 0;
        for (Clock::time_point before = Clock::now(); before < end && count < nanoseconds.size();) {
            mode == "map" ? mapAndUnmap() : fault(memory, size);
            const Clock::time_point after = Clock::now();
            nanoseconds[count++] = static_cast<std::uint32_t>(
                std::min<std::int64_t>(std::chrono::nanoseconds(after - before).count(), UINT32_MAX));
            before = after;
        }
        print(nanoseconds, count);
    }
}
