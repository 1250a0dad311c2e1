#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zorbel {

/// The most text that is taken from one file, in bytes: more than a million regions. A small file can
/// decompress to any amount.
inline constexpr std::uint64_t kMostText = std::uint64_t{1} << 29;

/// Hands the text of a file's contents to the consumer, piece by piece, until that returns false:
/// decompressed where they begin as gzip and Zstandard data do, otherwise as they stand. Returns what is
/// wrong with the contents, if anything is.
std::optional<std::string> forEachPiece(std::string_view contents,
                                        const std::function<bool(std::string_view piece)>& consume);

}  // namespace zorbel
