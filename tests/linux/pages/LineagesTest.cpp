#include "linux/pages/Lineages.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace zorbel::test {
namespace {

using namespace testing;

/// What each of several regions holds: frames and slots.
struct Holdings {
    std::vector<std::vector<std::uint64_t>> frames;
    std::vector<std::vector<std::uint64_t>> slots;
};

/// Regions that hold few of many pages, scattered over all of the memory, and some pages twice.
Holdings randomHoldings(unsigned seed, std::size_t regions) {
    std::mt19937_64 random(seed);
    Holdings all;
    for (auto* pages : {&all.frames, &all.slots}) {
        pages->resize(regions);
        std::vector<std::uint64_t> pool(regions * 3);
        for (std::uint64_t& page : pool) page = random() % 2 != 0 ? random() >> 28 : random() % 100;
        for (auto& held : *pages)
            for (std::size_t i = random() % 6; i > 0; --i) held.push_back(pool[random() % pool.size()]);
    }
    return all;
}

/// What counts, worked out page by page: for each region the first one of its lineage, and its pages alone;
/// and the pages that each lineage shares.
struct Counts {
    std::vector<Lineages::Member> lineage;
    std::vector<HeldPages> alone;
    std::map<Lineages::Member, HeldPages> shared;
};

Counts countPageByPage(const Holdings& all) {
    const std::size_t regions = all.frames.size();
    Counts counts;
    counts.alone.resize(regions);
    for (std::size_t i = 0; i < regions; ++i) counts.lineage.push_back(static_cast<Lineages::Member>(i));
    const auto holdersOf = [&](const std::vector<std::vector<std::uint64_t>>& held) {
        std::map<std::uint64_t, std::set<std::size_t>> holders;
        for (std::size_t i = 0; i < regions; ++i)
            for (const std::uint64_t page : held[i]) holders[page].insert(i);
        return holders;
    };
    for (const auto* held : {&all.frames, &all.slots})
        for (const auto& [page, holders] : holdersOf(*held))
            for (const std::size_t holder : holders) {
                const auto [low, high] =
                    std::minmax(counts.lineage[*holders.begin()], counts.lineage[holder]);
                std::ranges::replace(counts.lineage, Lineages::Member(high), Lineages::Member(low));
            }
    const auto count = [&](const auto& held, std::uint64_t HeldPages::*kind) {
        for (const auto& [page, holders] : holdersOf(held)) {
            const std::size_t first = *holders.begin();
            HeldPages& pages =
                holders.size() == 1 ? counts.alone[first] : counts.shared[counts.lineage[first]];
            pages.*kind += 1;
        }
    };
    count(all.frames, &HeldPages::resident);
    count(all.slots, &HeldPages::swapped);
    return counts;
}

void expectCounts(const Lineages& lineages, const Counts& expected) {
    std::map<Lineages::Member, HeldPages> shared;
    for (Lineages::Member member = 0; member < expected.lineage.size(); ++member) {
        EXPECT_EQ(lineages.lineageOf(member), expected.lineage[member]);
        EXPECT_EQ(lineages.aloneIn(member).resident, expected.alone[member].resident);
        EXPECT_EQ(lineages.aloneIn(member).swapped, expected.alone[member].swapped);
        shared[expected.lineage[member]] += lineages.sharedThrough(member);
    }
    for (const auto& [lineage, pages] : shared) {
        const auto found = expected.shared.find(lineage);
        const HeldPages none;
        EXPECT_EQ(pages.resident, (found == expected.shared.end() ? none : found->second).resident);
        EXPECT_EQ(pages.swapped, (found == expected.shared.end() ? none : found->second).swapped);
    }
}

TEST(LineagesTest, CountEachPageOnceInAnyOrderAndFromSeveralThreads) {
    for (unsigned seed = 0; seed < 40; ++seed) {
        const Holdings all = randomHoldings(seed, 5 + seed * 10);
        const std::size_t regions = all.frames.size();
        Lineages lineages;
        for (std::size_t i = 0; i < regions; ++i) EXPECT_EQ(lineages.addMember(), i);
        std::atomic<std::size_t> next = 0;
        const auto note = [&] {
            for (std::size_t i = next++; i < regions; i = next++) {
                const std::size_t region = regions - 1 - i;  // Low numbers come late.
                Lineages::Holder holder(lineages, static_cast<Lineages::Member>(region));
                for (const std::uint64_t frame : all.frames[region]) holder.holdFrame(frame);
                for (const std::uint64_t slot : all.slots[region]) holder.holdSlot(slot);
            }
        };
        {
            std::vector<std::jthread> workers;
            for (int i = 0; i < 3; ++i) workers.emplace_back(note);
        }
        expectCounts(lineages, countPageByPage(all));
    }
}

TEST(LineagesTest, HugePageIsAsManyFrames) {
    Lineages lineages;
    const Lineages::Member whole = lineages.addMember();
    const Lineages::Member small = lineages.addMember();
    Lineages::Holder(lineages, whole).holdFrames(1024, 512);
    Lineages::Holder(lineages, small).holdFrame(1500);
    EXPECT_EQ(lineages.aloneIn(whole).resident, 511U);
    EXPECT_EQ(lineages.sharedThrough(whole).resident + lineages.sharedThrough(small).resident, 1U);
}

}  // namespace
}  // namespace zorbel::test
