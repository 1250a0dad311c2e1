#include "base/Utf8.h"

#include <algorithm>

namespace zorbel {

namespace {

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

/// Whether a terminal may interpret the character: ASCII controls, and U+0080 to U+009F, which some terminals
/// treat as escape sequences.
bool isControl(std::string_view character) {
    const auto lead = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return lead < 0x20 || lead == 0x7F;
    return lead == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

void appendEscaped(std::string& text, std::string_view bytes) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += "\\x";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
}

}  // namespace

std::size_t utf8Length(std::string_view text) {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : (lead & 0xF0) == 0xE0        ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (length == 0 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if (!isContinuation(byte(i))) return 0;
    const unsigned char second = byte(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F)) return 0;
    if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) return 0;
    return length;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string printable(std::string_view text, std::size_t mostBytes) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        const bool isHarmless = length > 0 && !isControl(character);
        if (result.size() + (isHarmless ? length : 4 * character.size()) > mostBytes) break;
        if (isHarmless)
            result += character;
        else
            appendEscaped(result, character);
        text.remove_prefix(character.size());
    }
    return result;
}

}  // namespace zorbel
