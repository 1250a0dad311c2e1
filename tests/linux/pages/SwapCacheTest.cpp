#include "linux/pages/SwapCache.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "linux/pages/PageTables.h"

namespace zorbel::test {
namespace {

using namespace testing;

/// As the kernel shows a page in swap.
std::uint64_t slotAt(std::uint64_t area, std::uint64_t place) {
    return PageWord(std::uint64_t{1} << 62 | place << 5 | area).slot();
}

/// Processes of one region each, with slots at the address 1000 and at no other.
class SwapCacheTest : public Test {
  protected:
    /// The process whose slot a frame at that address is taken for, where each process has one of these
    /// slots. Whoever reads the frame is the last process.
    static std::vector<Lineages::Member> relativesOfFrame(const std::vector<std::uint64_t>& slots,
                                                          const std::vector<std::size_t>& order) {
        SwapCache swapCache;
        Lineages lineages;
        for (std::size_t i = 0; i <= slots.size(); ++i) lineages.addMember();
        for (const std::size_t i : order) {
            Lineages::Holder(lineages, static_cast<Lineages::Member>(i)).holdSlot(slots[i]);
            swapCache.noteSlot(1000, slots[i]);
        }
        const auto reader = static_cast<Lineages::Member>(slots.size());
        swapCache.noteFrame(reader, 1000, 5);
        swapCache.settle(lineages);
        std::vector<Lineages::Member> relatives;
        for (Lineages::Member i = 0; i < reader; ++i)
            if (lineages.lineageOf(i) == lineages.lineageOf(reader)) relatives.push_back(i);
        return relatives;
    }

    static void expectRelatives(const std::vector<std::uint64_t>& slots,
                                const std::vector<Lineages::Member>& expected) {
        std::vector<std::size_t> order;
        for (std::size_t i = 0; i < slots.size(); ++i) order.push_back(i);
        do EXPECT_EQ(relativesOfFrame(slots, order), expected) << PrintToString(order);
        while (std::ranges::next_permutation(order).found);
    }
};

TEST_F(SwapCacheTest, FrameIsTheSlotAtItsAddress) {
    SwapCache swapCache;
    Lineages lineages;
    const Lineages::Member readBack = lineages.addMember();
    const Lineages::Member other = lineages.addMember();
    Lineages::Holder(lineages, other).holdSlot(77);
    swapCache.noteSlot(1000, 77);
    swapCache.noteFrame(readBack, 1000, 5);
    swapCache.noteFrame(readBack, 1001, 6);  // Nobody has a slot there.
    swapCache.settle(lineages);
    EXPECT_EQ(lineages.lineageOf(other), readBack);
    EXPECT_EQ(lineages.aloneIn(readBack).resident, 1U);
    EXPECT_EQ(lineages.aloneIn(other).swapped, 0U);
    EXPECT_EQ(lineages.sharedThrough(readBack).swapped + lineages.sharedThrough(other).swapped, 1U);
}

TEST_F(SwapCacheTest, AreasAndFarPlacesAreToldApart) {
    SwapCache swapCache;
    Lineages lineages;
    const Lineages::Member readBack = lineages.addMember();
    const Lineages::Member other = lineages.addMember();
    std::vector<std::uint64_t> slots;
    for (std::uint64_t area = 0; area < 32; ++area)
        for (const std::uint64_t place :
             {std::uint64_t{1}, std::uint64_t{1} << 24, (std::uint64_t{1} << 26) - 2,
              (std::uint64_t{1} << 26) - 1, (std::uint64_t{1} << 31) - 1})
            slots.push_back(slotAt(area, place));
    for (std::size_t i = 0; i < slots.size(); ++i) {
        Lineages::Holder(lineages, other).holdSlot(slots[i]);
        swapCache.noteSlot(1000 + i, slots[i]);
        swapCache.noteFrame(readBack, 1000 + i, i);
    }
    swapCache.settle(lineages);
    EXPECT_EQ(lineages.aloneIn(readBack).resident, 0U);
    EXPECT_EQ(lineages.aloneIn(other).swapped, 0U);
    EXPECT_EQ(lineages.sharedThrough(readBack).swapped + lineages.sharedThrough(other).swapped, slots.size());
}

TEST_F(SwapCacheTest, OfDifferentSlotsASharedOneIsTaken) {
    for (const std::uint64_t place : {std::uint64_t{500}, std::uint64_t{1} << 30}) {
        const auto slot = [place](std::uint64_t i) { return slotAt(2, place + i); };
        expectRelatives({slot(1), slot(1)}, {0, 1});
        expectRelatives({slot(1), slot(2), slot(2)}, {1, 2});
        expectRelatives({slot(2), slot(1), slot(2), slot(3), slot(2)}, {0, 2, 4});
        // Otherwise the lowest one, whoever was first.
        expectRelatives({slot(3), slot(2)}, {1});
        expectRelatives({slot(4), slot(4), slot(3), slot(3), slot(1)}, {2, 3});
        expectRelatives({slot(9), slot(8), slot(7), slot(6), slot(5), slot(9)}, {4});
    }
}

TEST_F(SwapCacheTest, ThreadsDoNotChangeTheChoice) {
    for (int round = 0; round < 20; ++round) {
        constexpr std::uint64_t kPages = 2000;
        SwapCache swapCache;
        Lineages lineages;
        const Lineages::Member shared = lineages.addMember();
        const Lineages::Member reader = lineages.addMember();
        {
            Lineages::Holder holder(lineages, shared);
            for (std::uint64_t page = 0; page < kPages; ++page) holder.holdSlot(page);
        }
        {
            // Two have the shared slot of each page, and the others one of their own.
            std::vector<std::jthread> workers;
            for (std::uint64_t worker = 0; worker < 4; ++worker)
                workers.emplace_back([&swapCache, worker] {
                    for (std::uint64_t page = 0; page < kPages; ++page)
                        swapCache.noteSlot(page, worker < 2 ? page : worker * kPages + page);
                });
        }
        for (std::uint64_t page = 0; page < kPages; ++page) swapCache.noteFrame(reader, page, page);
        swapCache.settle(lineages);
        ASSERT_EQ(lineages.aloneIn(shared).swapped, 0U);
        ASSERT_EQ(lineages.aloneIn(reader).resident, 0U);
    }
}

}  // namespace
}  // namespace zorbel::test
