#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zorbel {

/// Length of the UTF-8 sequence that a text begins with, which must not be empty; 0 when it is malformed,
/// overlong, a surrogate or above the last character.
std::size_t utf8Length(std::string_view text);

bool isUtf8(std::string_view text);

/// A text from a stranger, safe to print on a terminal: control characters and bytes that are not UTF-8
/// become \xNN. What does not fit into the given number of bytes is cut off, between two characters.
std::string printable(std::string_view text, std::size_t mostBytes = std::string::npos);

}  // namespace zorbel
