// Allocates memory in the ways in which allocators treat it differently, and starts threads, and prints what
// the allocator that is loaded, or the C library, says of it. For bench/names:
//
//     names-program malloc|threads

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

namespace {

void say(const char* kind, std::uint64_t bytes) {
    std::printf("%s\t%llu\n", kind, static_cast<unsigned long long>(bytes));
}

template <typename Function>
Function* find(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

std::atomic<std::uint64_t> allocated = 0;  ///< In bytes, as the allocator rounds them.

void* allocate(std::size_t size) {
    void* block = std::malloc(size);
    std::memset(block, 1, size);
    allocated += malloc_usable_size(block);
    return block;
}

void* fillArena(void*) {
    for (int i = 0; i < 1500000; ++i) allocate(100);  // Three times 64 MiB, about.
    for (;;) pause();
}

void sayGlibc() {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    malloc_info(0, stream);
    std::fclose(stream);
    // One <heap> for each arena; the first is that of the data segment.
    const std::string report(text, size);
    const std::regex current("<system type=\"current\" size=\"([0-9]+)\"");
    std::vector<std::uint64_t> sizes;
    for (std::sregex_iterator match(report.begin(), report.end(), current), end; match != end; ++match)
        sizes.push_back(std::stoull((*match)[1]));
    sizes.pop_back();  // The sum of all.
    say("sbrk", sizes.front());
    std::uint64_t others = 0;
    for (const std::uint64_t arena : std::vector(sizes.begin() + 1, sizes.end())) others += arena;
    say("MALLOC_SMALL", others);
    say("MALLOC_LARGE", mallinfo2().hblkhd);
}

void sayAllocator() {
    if (auto* mallctl = find<int(const char*, void*, std::size_t*, void*, std::size_t)>("mallctl")) {
        std::uint64_t epoch = 1;
        std::size_t resident = 0;
        std::size_t size = sizeof epoch;
        mallctl("epoch", &epoch, &size, &epoch, sizeof epoch);
        size = sizeof resident;
        mallctl("stats.resident", &resident, &size, nullptr, 0);
        return say("jemalloc", resident);
    }
    if (find<void()>("mi_collect") != nullptr)
        return say("mimalloc", allocated);  // Its own figures count what it could touch, too.
    if (auto* property = find<int(const char*, std::size_t*)>("MallocExtension_GetNumericProperty")) {
        std::size_t heap = 0;
        std::size_t unmapped = 0;
        property("generic.heap_size", &heap);
        property("tcmalloc.pageheap_unmapped_bytes", &unmapped);
        return say("tcmalloc", heap - unmapped);
    }
    sayGlibc();
}

void allocateAll() {
    for (int i = 0; i < 1000000; ++i) allocate(16 + static_cast<std::size_t>(i % 100));
    for (int i = 0; i < 20; ++i) allocate(3000000);
    pthread_t thread;
    pthread_create(&thread, nullptr, fillArena, nullptr);
    sleep(2);
    sayAllocator();
}

std::atomic<std::uint64_t> stacks = 0;

/// Resident bytes of the calling thread's stack.
std::uint64_t ownStack() {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    pthread_attr_t attributes;
    void* start = nullptr;
    std::size_t size = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &start, &size);
    std::vector<unsigned char> isResident(size / page);
    mincore(start, size, isResident.data());
    return static_cast<std::uint64_t>(
               std::ranges::count_if(isResident, [](auto is) { return (is & 1) != 0; })) *
           page;
}

void startThreads() {
    for (int i = 0; i < 30; ++i) {
        pthread_t thread;
        pthread_create(
            &thread, nullptr,
            [](void*) -> void* {
                volatile char used[100000];
                std::fill_n(used, sizeof used, '\1');
                stacks += ownStack();
                for (;;) pause();
            },
            nullptr);
    }
    sleep(1);
    say("stack", stacks + ownStack());
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc > 1 && std::strcmp(argv[1], "threads") == 0)
        startThreads();
    else
        allocateAll();
    std::puts("ready");
    std::fflush(stdout);
    static_cast<void>(std::getchar());
}
