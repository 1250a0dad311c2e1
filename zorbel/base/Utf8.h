#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zorbel {

/// Length of the UTF-8 sequence at the start of a text, which must not be empty. 0 if it is malformed,
/// overlong, a surrogate or above U+10FFFF.
std::size_t utf8Length(std::string_view text);

bool isUtf8(std::string_view text);

/// Makes untrusted text safe to print on a terminal: control characters and bytes that are not UTF-8 become
/// \xNN. Cuts off what exceeds mostBytes, between two characters.
std::string printable(std::string_view text, std::size_t mostBytes = std::string::npos);

}  // namespace zorbel
