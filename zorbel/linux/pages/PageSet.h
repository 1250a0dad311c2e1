#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zorbel {

/// A set of pages, given by their numbers.
///
/// It keeps stretches, and merges those that overlap whenever it has twice as many as after the last time. So
/// many processes that have the same pages take no more memory than a few, and adding costs the logarithm.
class PageSet {
  public:
    /// Adds the pages from the first one up to the end.
    void add(std::uint64_t first, std::uint64_t end);

    [[nodiscard]] std::uint64_t count();
    /// Those from the first one up to the end.
    [[nodiscard]] std::uint64_t countIn(std::uint64_t first, std::uint64_t end);

  private:
    struct Stretch {
        std::uint64_t first;
        std::uint64_t end;
    };

    void _merge();
    /// Pages below the number. Everything must be merged.
    [[nodiscard]] std::uint64_t _countBelow(std::uint64_t page) const;

    std::vector<Stretch> _stretches;
    std::size_t _mergedCount = 0;        ///< Stretches after the last time.
    std::vector<std::uint64_t> _before;  ///< Pages before each stretch; empty if something was added since.
};

}  // namespace zorbel
