#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace zorbel {

/// An immutable text that is stored once for the whole run.
///
/// All processes of a machine repeat the same few thousand names (categories, mapped files), and each
/// category has a name as key. A Name is one pointer: copying, comparing for equality and hashing do not
/// access the text. Texts are kept until the tool exits.
///
/// A default-constructed Name is absent, which differs from an empty text. Names can be created from any
/// thread.
class Name {
  public:
    Name() = default;
    explicit Name(std::string_view text);

    /// Whether there is a text, even an empty one.
    [[nodiscard]] bool isPresent() const { return _text != nullptr; }

    /// The text; empty if absent.
    [[nodiscard]] const std::string& text() const;
    [[nodiscard]] const char* c_str() const { return text().c_str(); }

    friend bool operator==(Name a, Name b) { return a._text == b._text; }

    [[nodiscard]] std::size_t hash() const { return std::hash<const void*>()(_text); }

  private:
    const std::string* _text = nullptr;
};

/// Orders names by the bytes of their texts.
struct NameTextLess {
    bool operator()(Name a, Name b) const { return a.text() < b.text(); }
};

}  // namespace zorbel

template <>
struct std::hash<zorbel::Name> {
    std::size_t operator()(zorbel::Name name) const { return name.hash(); }
};
