#pragma once

#include <cstddef>
#include <string_view>

namespace zorbel {

/// Length of the UTF-8 sequence that a text begins with, which must not be empty; 0 when it is malformed,
/// overlong, a surrogate or above the last character.
std::size_t utf8Length(std::string_view text);

bool isUtf8(std::string_view text);

}  // namespace zorbel
