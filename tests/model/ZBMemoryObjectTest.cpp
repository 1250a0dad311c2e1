#include "model/ZBMemoryObject.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <random>

#include "model/MemoryKinds.h"
#include "model/ZBMemoryCategory.h"

namespace zorbel::test {

constexpr std::uint32_t kSmall = 4096;
constexpr std::uint32_t kLarge = 16384;

/// Bytes: clean, dirty, swapped, reclaimable and wired.
using Counts = std::array<std::uint64_t, 5>;

Counts totalsOf(const auto& counted) {
    return {counted.totalCleanSize(), counted.totalDirtySize(), counted.totalSwappedSize(),
            counted.totalReclaimableSize(), counted.totalWiredSize()};
}

/// A range of an object.
struct Range {
    std::uint64_t offset;
    std::uint64_t size;
    Counts counts;
};

/// Folds ranges the plain way, each by one walk over all that are there: slow, and easy to see through.
class PlainRangeList {
  public:
    void add(Range added, std::uint64_t page) {
        const auto startOf = [page](const Range& range) { return range.offset / page * page; };
        const auto endOf = [page](const Range& range) {
            return (range.offset + range.size + page - 1) / page * page;
        };
        const std::uint64_t start = startOf(added);
        const std::uint64_t end = endOf(added);
        auto place = _ranges.begin();
        while (place != _ranges.end() && endOf(*place) < start) ++place;
        auto stop = place;
        for (; stop != _ranges.end() && startOf(*stop) <= end; ++stop) {
            const std::uint64_t from = std::max(start, startOf(*stop));
            const std::uint64_t to = std::min(end, endOf(*stop));
            const std::uint64_t common = to > from ? to - from : 0;
            for (std::size_t i = 0; i < added.counts.size(); ++i) {
                const std::uint64_t a = added.counts[i];
                const std::uint64_t b = stop->counts[i];
                added.counts[i] = std::max({a + b - std::min(a + b, common), a, b});
            }
            const std::uint64_t last = std::max(added.offset + added.size, stop->offset + stop->size);
            added.offset = std::min(added.offset, stop->offset);
            added.size = last - added.offset;
        }
        _ranges.insert(_ranges.erase(place, stop), added);
    }

    Counts total() const {
        Counts total{};
        for (const Range& range : _ranges)
            for (std::size_t i = 0; i < total.size(); ++i) total[i] += range.counts[i];
        return total;
    }

  private:
    std::vector<Range> _ranges;
};

/// An object, and the plain list of the same ranges.
struct Folding {
    /// A region without an object has no bytes, so the plain list does not get it.
    void add(const Range& range, std::uint32_t pageSize = kSmall, bool identified = true) {
        ZBMemoryRegion& region = regions.emplace_back();
        region.setName(Name("region " + std::to_string(regions.size())));
        region.setObject_id(identified ? 1 : 0);
        region.setOffset(range.offset);
        region.setSize(range.size);
        region.setCleanNonSpecSize(range.counts[0]);
        region.setDirtySize(range.counts[1]);
        region.setSwappedSize(range.counts[2]);
        region.setReclaimableSize(range.counts[3]);
        region.setWiredSize(range.counts[4]);
        object.addRegion(region, pageSize);
        if (identified) plain.add(range, pageSize);
    }

    void expectPlainTotals() {
        object.calculateSizes();
        EXPECT_EQ(totalsOf(object), plain.total());
        EXPECT_EQ(object.memoryRegions().size(), regions.size());
        EXPECT_EQ(object.name().text(), "region 1");
    }

    ZBMemoryObject object;
    PlainRangeList plain{};
    std::deque<ZBMemoryRegion> regions{};
};

TEST(ZBMemoryObjectTest, CommonPagesCountOnce) {
    const auto range = [](std::uint64_t offset, std::uint64_t end, std::uint64_t dirty) {
        return Range{offset, end - offset, {0, dirty}};
    };
    const auto dirtyOf = [](std::initializer_list<Range> ranges, std::uint32_t pageSize = kSmall) {
        Folding folding;
        for (const Range& each : ranges) folding.add(each, pageSize);
        folding.expectPlainTotals();
        return folding.object.totalDirtySize();
    };
    EXPECT_EQ(dirtyOf({range(0, 16384, 8192), range(0, 16384, 8192)}, kLarge), 8192U);
    EXPECT_EQ(dirtyOf({range(0, 16384, 16384), range(8192, 24576, 16384)}), 24576U);
    // Touching ranges add up.
    EXPECT_EQ(dirtyOf({range(0, 4096, 4096), range(4096, 8192, 4096)}), 8192U);
    // Both round to the first page.
    EXPECT_EQ(dirtyOf({range(100, 200, 4096), range(300, 400, 4096)}), 4096U);
    // The second range closes the gap to the first, so the third finds both in one.
    EXPECT_EQ(dirtyOf({range(0, 4096, 4096), range(4096, 8192, 0), range(4096, 8192, 4096)}), 4096U);
    // The last one joins two, with one page in common with each: 8192 + 16384 - 4096 + 8192 - 4096.
    EXPECT_EQ(dirtyOf({range(0, 8192, 8192), range(12288, 20480, 8192), range(4096, 16384, 16384)}), 24576U);
    // A range as large as the address space allows.
    EXPECT_EQ(dirtyOf({range(0, ~0ULL - 8191, 8192), range(4096, 8192, 4096)}), 8192U);
}

TEST(ZBMemoryObjectTest, FoldsRandomRangesLikeThePlainList) {
    for (unsigned seed = 0; seed < 600 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        const auto below = [&random](std::uint64_t limit) { return random() % limit; };
        const bool mixedPages = seed % 3 == 0;
        const bool aligned = seed % 2 == 0;
        const std::uint64_t pages = 4 + below(200);  // Crowded objects and sparse ones.
        Folding folding;
        for (std::uint64_t left = 1 + below(80); left > 0; --left) {
            const std::uint64_t unit = aligned ? kSmall : 1 + below(kSmall);
            const Counts counts{below(20000), below(5) * kSmall, below(2) * below(60000), below(kSmall),
                                below(3) * kLarge};
            folding.add({below(pages) * unit, below(1 + below(12)) * unit, counts},
                        mixedPages && below(2) == 0 ? kLarge : kSmall, below(10) != 0);
            if (below(15) == 0 || left == 1) folding.expectPlainTotals();
        }
    }
}

TEST(ZBMemoryObjectTest, AMillionRangesFoldInAnyOrder) {
    constexpr std::uint64_t kRanges = 1'000'000;
    std::vector<ZBMemoryRegion> regions(kRanges);
    for (std::uint64_t i = 0; i < kRanges; ++i) {
        regions[i].setOffset(i * kSmall);
        regions[i].setSize(2 *
                           kSmall);  // One page of two in common with each neighbour, and all of it wired.
        regions[i].setWiredSize(2 * kSmall);
        regions[i].setObject_id(1);
    }
    const auto wired = [&regions] {
        ZBMemoryObject object;
        for (ZBMemoryRegion& region : regions) object.addRegion(region, kSmall);
        object.calculateSizes();
        return object.totalWiredSize();
    };
    constexpr std::uint64_t kAllPages = (kRanges + 1) * kSmall;
    EXPECT_EQ(wired(), kAllPages);
    std::reverse(regions.begin(), regions.end());
    EXPECT_EQ(wired(), kAllPages);
    std::shuffle(regions.begin(), regions.end(), std::mt19937(1));
    EXPECT_EQ(wired(), kAllPages);
}

TEST(ZBMemoryCategoryTest, SumsEachObjectOnceInOrderOfOrdinals) {
    ZBMemoryCategory category(Name("heap"), SegmentCode::kData);
    Folding first{.object = ZBMemoryObject(1)};
    Folding second{.object = ZBMemoryObject(2)};
    first.add({0, 4096, {1, 2, 3, 4, 5}});
    first.regions.front().setPurgeableNonVolatile(true);
    second.add({0, 4096, {10, 20, 30, 40, 50}});
    for (ZBMemoryObject* object : {&second.object, &first.object, &second.object, &first.object}) {
        object->calculateSizes();
        category.addMemoryObject(*object);
    }
    EXPECT_EQ(totalsOf(category), (Counts{11, 22, 33, 44, 55}));
    EXPECT_EQ(category.totalRegions(), 2);
    EXPECT_TRUE(category.purgeableNonVolatile());
}

TEST(ZBMemoryRegionTest, SortsByStartThenTheLargerFirst) {
    ZBMemoryRegion low;
    low.setEnd(4096);
    ZBMemoryRegion large;
    large.setStart(4096);
    large.setEnd(12288);
    ZBMemoryRegion small = large;
    small.setEnd(8192);
    EXPECT_TRUE(low.compare(large) < 0 && large.compare(small) < 0 && small.compare(low) > 0);
    EXPECT_TRUE(small.compare(ZBMemoryRegion(small)) == 0);
    EXPECT_DEATH(small.setEnd(4095), "end >= self.start");
}

TEST(ZBMemoryRegionTest, TagsHaveNames) {
    EXPECT_FALSE(ZBMemoryRegion::categoryNameForTag(0).isPresent());
    for (const auto& [tag, name] : {std::pair{7U, "MALLOC_TINY"},
                                    {12U, "tag 12"},
                                    {91U, "video bitstream"},
                                    {239U, "tag 239"},
                                    {256U, "tag 256"},
                                    {~1U, "tag -2"},
                                    {240U, "app-specific tag 1"},
                                    {255U, "app-specific tag 16"}})
        EXPECT_EQ(ZBMemoryRegion::categoryNameForTag(tag).text(), name);
}

// A name in the wrong row would be a false name in every report.
TEST(ZBMemoryRegionTest, KindsOnLinuxHaveTheirNames) {
    const std::pair<Tag, const char*> kinds[] = {
        {Tag::kMallocSmall, "MALLOC_SMALL"},
        {Tag::kMallocLarge, "MALLOC_LARGE"},
        {Tag::kSbrk, "sbrk"},
        {Tag::kStack, "stack"},
        {Tag::kGuard, "guard"},
        {Tag::kJitCode, "JS JIT generated code"},
        {Tag::kMemfd, "memfd"},
        {Tag::kReserved, "reserved address space"},
        {Tag::kPosixShared, "POSIX shared memory"},
        {Tag::kSysVShared, "SysV shared memory"},
        {Tag::kSharedAnonymous, "shared anonymous memory"},
        {Tag::kTmpfs, "tmpfs file"},
        {Tag::kHugePages, "huge pages"},
        {Tag::kGpuBuffer, "GPU buffer"},
        {Tag::kDmaBuffer, "DMA buffer"},
        {Tag::kIoUring, "io_uring"},
        {Tag::kAioRing, "AIO ring"},
        {Tag::kPerfRing, "perf ring buffer"},
        {Tag::kBpfMap, "BPF map"},
        {Tag::kPacketRing, "packet ring"},
        {Tag::kDeviceMemory, "device memory"},
        {Tag::kVdso, "vdso"},
        {Tag::kVvar, "vvar"},
        {Tag::kVsyscall, "vsyscall"},
        {Tag::kUprobes, "uprobes"},
        {Tag::kExecutableAnonymous, "executable anonymous memory"},
        {Tag::kNamedAnonymous, "named anonymous memory"},
        {Tag::kGoHeap, "Go heap"},
        {Tag::kGoRuntime, "Go runtime"},
        {Tag::kJavaHeap, "Java heap"},
        {Tag::kJavaClassSpace, "Java class space"},
        {Tag::kJavaMetaspace, "Java metaspace"},
        {Tag::kJavaCode, "Java code cache"},
        {Tag::kV8Heap, "V8 heap"},
        {Tag::kPythonObjects, "Python objects"},
        {Tag::kPartitionAlloc, "PartitionAlloc"},
        {Tag::kOilpanHeap, "Oilpan heap"},
        {Tag::kJemalloc, "jemalloc"},
        {Tag::kMimalloc, "mimalloc"},
        {Tag::kTcmalloc, "tcmalloc"},
        {Tag::kRubyHeap, "Ruby heap"},
        {Tag::kErlangHeap, "Erlang heap"},
        {Tag::kRubyTransientHeap, "Ruby transient heap"},
        {Tag::kSecretMemory, "secret memory"},
    };
    for (const auto& [tag, name] : kinds)
        EXPECT_EQ(ZBMemoryRegion::categoryNameForTag(static_cast<std::uint32_t>(tag)).text(), name);
}

}  // namespace zorbel::test
