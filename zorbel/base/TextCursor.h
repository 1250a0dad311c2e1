#pragma once

#include <optional>
#include <string_view>

namespace zorbel {

// A text is read by taking pieces from its beginning. The files under /proc are lines of fields with blanks
// between them.

/// Takes all up to a separator, and the separator; all that is left where there is none.
std::string_view takeUpTo(std::string_view& text, char separator);

/// Takes a line, and the newline behind it.
inline std::string_view takeLine(std::string_view& text) { return takeUpTo(text, '\n'); }

/// Takes the next word, and blanks and tabs before it; empty at the end.
std::string_view takeWord(std::string_view& text);

/// Takes this character; false where the text begins with another.
bool takeCharacter(std::string_view& text, char expected);

/// Takes an unsigned number and the blanks before it; nothing where there is no digit, or where it does not
/// fit.
std::optional<unsigned long long> takeNumber(std::string_view& text, int base = 10);

/// The number behind the first such label of a text, blanks aside; nothing where there is none.
std::optional<unsigned long long> numberBehind(std::string_view text, std::string_view label);

}  // namespace zorbel
