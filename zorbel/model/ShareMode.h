#pragma once

#include <cstdint>

namespace zorbel {

// How a region shares its pages. The numbers are the kernel's.
inline constexpr std::uint8_t kShareModeCopyOnWrite = 1;
inline constexpr std::uint8_t kShareModePrivate = 2;
inline constexpr std::uint8_t kShareModeEmpty = 3;
inline constexpr std::uint8_t kShareModeShared = 4;

}  // namespace zorbel
