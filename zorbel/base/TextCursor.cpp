#include "base/TextCursor.h"

#include <algorithm>
#include <charconv>

namespace zorbel {

std::string_view takeUpTo(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

std::string_view takeWord(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return takeUpTo(text, ' ');
}

bool takeCharacter(std::string_view& text, char expected) {
    if (text.empty() || text.front() != expected) return false;
    text.remove_prefix(1);
    return true;
}

std::optional<unsigned long long> takeNumber(std::string_view& text, int base) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

std::optional<unsigned long long> numberBehind(std::string_view text, std::string_view label) {
    const std::size_t found = text.find(label);
    if (found == std::string_view::npos) return std::nullopt;
    text.remove_prefix(found + label.size());
    return takeNumber(text);
}

}  // namespace zorbel
