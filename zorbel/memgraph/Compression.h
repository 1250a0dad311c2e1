#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zorbel {

/// Most bytes of text to read from one file: enough for more than a million regions. A small file may
/// decompress to any size.
inline constexpr std::uint64_t kMostText = std::uint64_t{1} << 29;

/// Passes a file's text to consume, piece by piece, until that returns false. Data that starts like gzip or
/// Zstandard is decompressed; anything else is passed unchanged. Returns an error text if the data is
/// damaged.
std::optional<std::string> forEachPiece(std::string_view contents,
                                        const std::function<bool(std::string_view piece)>& consume);

}  // namespace zorbel
