// Which memory is a thread's stack.

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"

namespace zorbel::e2e {
namespace {

constexpr int kInstallGuards = 102;  // MADV_GUARD_INSTALL, from Linux 6.13 on.
constexpr std::size_t kStackSize = 1 << 20;

/// What the child tells the test.
struct Told {
    std::int64_t stackPages = 0;  ///< Resident, of all threads but the first.
    std::int64_t stacks = 0;
    bool hasGuards = false;
};

char* map(std::size_t size, int protection = PROT_READ | PROT_WRITE) {
    void* start = mmap(nullptr, size, protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    check(start != MAP_FAILED, "mmap");
    return static_cast<char*>(start);
}

void startThread(void* stack, Told& told) {
    static pthread_barrier_t isWaiting;
    pthread_barrier_init(&isWaiting, nullptr, 2);
    static Told* result;
    result = &told;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stack != nullptr) pthread_attr_setstack(&attributes, stack, kStackSize - kPageSize);
    pthread_t thread;
    const auto run = [](void*) -> void* {
        volatile char used[5 * 4096];
        std::fill_n(used, sizeof used, '\1');
        pthread_attr_t own;
        void* start = nullptr;
        std::size_t size = 0;
        pthread_getattr_np(pthread_self(), &own);
        pthread_attr_getstack(&own, &start, &size);
        std::vector<unsigned char> isResident(size / kPageSize);
        mincore(start, size, isResident.data());
        result->stackPages += std::count(isResident.begin(), isResident.end(), 1);
        ++result->stacks;
        pthread_barrier_wait(&isWaiting);
        for (;;) pause();
    };
    check(pthread_create(&thread, &attributes, run, nullptr) == 0, "pthread_create");
    pthread_barrier_wait(&isWaiting);
}

void* runCoroutine(void*) {
    constexpr std::size_t kHeap = 32 << 20;
    char* heap = map(kHeap + kPageSize, PROT_NONE) + kPageSize;
    mprotect(heap, kHeap, PROT_READ | PROT_WRITE);
    static ucontext_t back;
    static ucontext_t coroutine;
    getcontext(&coroutine);
    coroutine.uc_stack.ss_sp = heap + kHeap / 2;
    coroutine.uc_stack.ss_size = 1 << 16;
    makecontext(
        &coroutine,
        [] {
            for (;;) pause();
        },
        0);
    swapcontext(&back, &coroutine);
    return nullptr;
}

TEST(StackTest, OnlyMemoryWithAStackPointerAboveAGuardIsAStack) {
    Told& told = *static_cast<Told*>(
        mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto makeStacks = [&] {
        for (int i = 0; i < 5; ++i) startThread(nullptr, told);
        // A thread that ends leaves a stack that the C library keeps.
        pthread_t thread;
        pthread_create(
            &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        pthread_join(thread, nullptr);
        // A thread that runs a coroutine, whose stack is in a heap with a guard below it.
        pthread_create(&thread, nullptr, runCoroutine, nullptr);
        usleep(100000);
        // A buffer above a guard is none.
        char* buffer = map((64 << 20) + kPageSize, PROT_NONE) + kPageSize;
        mprotect(buffer, 64 << 20, PROT_READ | PROT_WRITE);
        buffer[0] = 1;
        // Stacks that are one mapping, with other memory behind them.
        char* merged = map(4 * kStackSize);
        told.hasGuards = true;
        for (std::size_t i = 0; i < 3; ++i) {
            char* start = merged + i * kStackSize;
            told.hasGuards = told.hasGuards && madvise(start, kPageSize, kInstallGuards) == 0;
            if (told.hasGuards) startThread(start + kPageSize, told);
        }
        std::fill_n(merged + 3 * kStackSize, kStackSize, '\1');
    };
    const Fixture fixture({[] {}, makeStacks});
    const auto stacks = [&] { return measure({fixture.pid()}).tableOf(fixture.pid())["stack"]; };
    const Row before = stacks();
    fixture.next();
    const Row after = stacks();
    EXPECT_EQ(told.stacks, told.hasGuards ? 8 : 5);
    EXPECT_EQ(after.regions - before.regions, told.stacks);
    EXPECT_NEAR(static_cast<double>(after.dirty - before.dirty), static_cast<double>(told.stackPages), 1.0);
    EXPECT_EQ(after.swapped, before.swapped);
}

}  // namespace
}  // namespace zorbel::e2e
