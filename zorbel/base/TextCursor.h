#pragma once

#include <optional>
#include <string_view>

namespace zorbel {

// Functions that parse a text from its start and remove what they return. Files in /proc are lines of fields
// that are separated by blanks.

/// Takes everything up to the separator, and removes the separator too. Takes the rest if there is no
/// separator.
std::string_view takeUpTo(std::string_view& text, char separator);

/// Takes a line without its newline.
inline std::string_view takeLine(std::string_view& text) { return takeUpTo(text, '\n'); }

/// Skips blanks and tabs and takes the word up to the next blank; empty at the end.
std::string_view takeWord(std::string_view& text);

/// Takes this character; false if the text starts with another one.
bool takeCharacter(std::string_view& text, char expected);

/// Skips blanks and takes an unsigned number; nothing if there is no digit or the number is too large.
std::optional<unsigned long long> takeNumber(std::string_view& text, int base = 10);

/// The number after the first occurrence of the label, without leading blanks; nothing if there is none.
std::optional<unsigned long long> numberBehind(std::string_view text, std::string_view label);

}  // namespace zorbel
