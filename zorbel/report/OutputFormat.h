#pragma once

#include <cstdint>

namespace zorbel {

/// Unit of sizes in the text report.
enum class SummaryFormat : std::int32_t {
    kBytes = 0,
    kFormatted = 1,  ///< Scaled by powers of 1024.
    kPages = 2,
};

/// Optional columns of the text report, as a set of bits.
using OutputOptions = std::int32_t;
inline constexpr OutputOptions kShowWired = 1;
inline constexpr OutputOptions kShowSwapped = 2;

}  // namespace zorbel
