// Folds a million regions of one object, in several orders. Their ranges are apart, touch or overlap.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "model/ZBMemoryObject.h"

namespace {

using zorbel::ZBMemoryObject;
using zorbel::ZBMemoryRegion;

constexpr std::size_t kRegions = 1'000'000;
constexpr std::uint32_t kPage = 4096;

enum Order : std::int64_t { kAscending, kDescending, kRandom };

/// Regions whose starts are distance bytes apart.
std::vector<ZBMemoryRegion> makeRegions(Order order, std::uint64_t distance, std::uint64_t size) {
    std::vector<ZBMemoryRegion> regions(kRegions);
    for (std::size_t i = 0; i < regions.size(); ++i) {
        regions[i].setOffset(i * distance);
        regions[i].setSize(size);
        regions[i].setObject_id(1);
        regions[i].setDirtySize(i % 2 == 0 ? size : 0);
    }
    if (order == kDescending) std::reverse(regions.begin(), regions.end());
    if (order == kRandom) std::shuffle(regions.begin(), regions.end(), std::mt19937(1));
    return regions;
}

void fold(benchmark::State& state, std::uint64_t distance, std::uint64_t size) {
    std::vector<ZBMemoryRegion> regions = makeRegions(static_cast<Order>(state.range(0)), distance, size);
    for (auto _ : state) {
        ZBMemoryObject object;
        for (ZBMemoryRegion& region : regions) object.addRegion(region, kPage);
        object.calculateSizes();
        benchmark::DoNotOptimize(object.totalDirtySize());
    }
}

void foldApart(benchmark::State& state) { fold(state, 2UL * kPage, kPage); }
void foldTouching(benchmark::State& state) { fold(state, kPage, kPage); }
void foldOverlapping(benchmark::State& state) { fold(state, kPage, 2UL * kPage); }
void foldOverlappingInPairs(benchmark::State& state) { fold(state, 3 * kPage / 2, kPage + 1); }

BENCHMARK(foldApart)->DenseRange(kAscending, kRandom)->Unit(benchmark::kMillisecond);
BENCHMARK(foldTouching)->DenseRange(kAscending, kRandom)->Unit(benchmark::kMillisecond);
BENCHMARK(foldOverlapping)->DenseRange(kAscending, kRandom)->Unit(benchmark::kMillisecond);
BENCHMARK(foldOverlappingInPairs)->DenseRange(kAscending, kRandom)->Unit(benchmark::kMillisecond);

}  // namespace
