#include "linux/pages/PageSet.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace zorbel {
namespace {

TEST(PageSetTest, CountsEachPageOnce) {
    constexpr std::size_t kPages = 20000;
    std::vector<bool> expected(kPages);
    PageSet pages;
    EXPECT_EQ(pages.count(), 0U);
    std::mt19937 random(7);
    const auto below = [&](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    const auto countIn = [&](std::size_t first, std::size_t end) {
        std::size_t count = 0;
        for (std::size_t i = first; i < end; ++i) count += expected[i] ? 1U : 0U;
        return count;
    };
    for (int round = 0; round < 9000; ++round) {
        const std::size_t first = below(kPages - 8);
        const std::size_t end = first + below(round % 100 == 0 ? 8 : 2);  // Mostly scattered, some empty.
        pages.add(first, end);
        for (std::size_t i = first; i < end; ++i) expected[i] = true;
        if (round % 500 != 0) continue;
        EXPECT_EQ(pages.count(), countIn(0, kPages));
        for (int i = 0; i < 20; ++i) {
            const std::size_t from = below(kPages);
            const std::size_t to = from + below(kPages - from + 1);
            EXPECT_EQ(pages.countIn(from, to), countIn(from, to));
        }
    }
}

}  // namespace
}  // namespace zorbel
