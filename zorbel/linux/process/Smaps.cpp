#include "linux/process/Smaps.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "base/TextCursor.h"

namespace zorbel {

namespace {

/// An entry starts with a lower-case hexadecimal address; a field starts with a capital letter.
bool isHeader(std::string_view line) {
    return !line.empty() && ((line[0] >= '0' && line[0] <= '9') || (line[0] >= 'a' && line[0] <= 'f'));
}

/// Line format: "start-end perms offset major:minor inode path". All numbers but the inode are hexadecimal.
bool parseHeader(std::string_view line, SmapsEntry& entry) {
    constexpr std::size_t kPermissionsSize = 4;
    entry = {};
    const auto start = takeNumber(line, 16);
    if (!start || !takeCharacter(line, '-')) return false;
    const auto end = takeNumber(line, 16);
    if (!end || *end <= *start || !takeCharacter(line, ' ') || line.size() < kPermissionsSize) return false;
    if (line[0] == 'r') entry.permissions |= SmapsEntry::kRead;
    if (line[1] == 'w') entry.permissions |= SmapsEntry::kWrite;
    if (line[2] == 'x') entry.permissions |= SmapsEntry::kExecute;
    entry.isShared = line[3] == 's';
    line.remove_prefix(kPermissionsSize);
    const auto offset = takeNumber(line, 16);
    const auto majorNumber = takeNumber(line, 16);
    if (!offset || !majorNumber || !takeCharacter(line, ':')) return false;
    const auto minorNumber = takeNumber(line, 16);
    const auto inode = takeNumber(line);
    if (!minorNumber || !inode) return false;
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    entry.start = *start;
    entry.end = *end;
    entry.offset = *offset;
    entry.device = makedev(static_cast<unsigned>(*majorNumber), static_cast<unsigned>(*minorNumber));
    entry.inode = *inode;
    entry.path = line;
    return true;
}

std::uint32_t parseFlags(std::string_view words) {
    struct Flag {
        std::string_view word;
        std::uint32_t bit;
    };
    constexpr Flag kFlags[] = {
        {"mr", SmapsEntry::kMayRead},      {"mw", SmapsEntry::kMayWrite},  {"me", SmapsEntry::kMayExecute},
        {"lo", SmapsEntry::kLocked},       {"ht", SmapsEntry::kHugePages}, {"io", SmapsEntry::kDeviceMemory},
        {"pf", SmapsEntry::kDeviceMemory}, {"ac", SmapsEntry::kAccounted},
    };
    std::uint32_t flags = 0;
    for (std::size_t at = 0; at + 2 <= words.size(); at += 3)  // Two letters and a blank each.
        for (const Flag& flag : kFlags)
            if (words.substr(at, 2) == flag.word) flags |= flag.bit;
    return flags;
}

struct Field {
    std::string_view label;  // Including the newline before it.
    std::uint64_t SmapsEntry::*value;
};

constexpr Field kFields[] = {
    {"\nRss:", &SmapsEntry::resident},
    {"\nShared_Dirty:", &SmapsEntry::sharedDirty},
    {"\nPrivate_Dirty:", &SmapsEntry::privateDirty},
    {"\nAnonymous:", &SmapsEntry::anonymous},
    {"\nLazyFree:", &SmapsEntry::lazyFree},
    {"\nShared_Hugetlb:", &SmapsEntry::sharedHugetlb},
    {"\nPrivate_Hugetlb:", &SmapsEntry::privateHugetlb},
    {"\nSwap:", &SmapsEntry::swap},
};
constexpr std::string_view kFlagsLabel = "\nVmFlags: ";

/// The positions of an entry's fields, counted from the end of the header line. The kernel pads numbers, so
/// fields are at the same positions in every entry unless a number is wider than its column. So most entries
/// need no search.
class FieldLayout {
  public:
    /// Learns the positions from an entry with all its fields.
    void learn(std::string_view fields) {
        _isKnown = false;
        for (std::size_t i = 0; i < std::size(kFields); ++i) {
            _places[i] = fields.find(kFields[i].label);
            if (_places[i] == std::string_view::npos) return;
        }
        _flags = fields.find(kFlagsLabel);
        if (_flags == std::string_view::npos) return;
        _isKnown = fields.find('\n', _flags + 1) == fields.size() - 1;  // The flags must be the last line.
    }

    /// Reads an entry's fields from the text after its header line. Returns their length up to the last
    /// newline, or 0 if any field is not at the expected position.
    std::size_t read(std::string_view text, SmapsEntry& entry) const {
        if (!_isKnown || !stands(text, kFlagsLabel, _flags)) return 0;
        for (std::size_t i = 0; i < std::size(kFields); ++i)
            if (!stands(text, kFields[i].label, _places[i])) return 0;
        const std::size_t words = _flags + kFlagsLabel.size();
        const std::size_t end = text.find('\n', words);
        if (end == std::string_view::npos) return 0;
        for (std::size_t i = 0; i < std::size(kFields); ++i)
            entry.*kFields[i].value = numberAt(text, _places[i] + kFields[i].label.size());
        entry.flags = parseFlags(text.substr(words, end - words));
        return end;
    }

  private:
    static bool stands(std::string_view text, std::string_view label, std::size_t place) {
        return text.size() >= place + label.size() &&
               std::memcmp(text.data() + place, label.data(), label.size()) == 0;
    }
    static std::uint64_t numberAt(std::string_view text, std::size_t place) {
        text.remove_prefix(place);
        return takeNumber(text).value_or(0);
    }

    std::array<std::size_t, std::size(kFields)> _places{};
    std::size_t _flags = 0;
    bool _isKnown = false;
};

/// Reads an entry's fields from the text after its header line, line by line, at any position. Returns their
/// length up to the last newline; nothing if the entry may continue after the text.
std::optional<std::size_t> searchFields(std::string_view text, bool atEnd, SmapsEntry& entry) {
    std::size_t newline = 0;  // The one before the current line.
    for (;;) {
        const std::size_t next = text.find('\n', newline + 1);
        if (next == std::string_view::npos && !atEnd) return std::nullopt;
        const std::string_view line = text.substr(newline, std::min(next, text.size()) - newline);
        if (line.size() <= 1 || isHeader(line.substr(1))) return newline;
        for (const Field& field : kFields) {
            if (!line.starts_with(field.label)) continue;
            std::string_view number = line.substr(field.label.size());
            entry.*field.value = takeNumber(number).value_or(0);
        }
        if (line.starts_with(kFlagsLabel)) entry.flags = parseFlags(line.substr(kFlagsLabel.size()));
        if (next == std::string_view::npos) return text.size();
        newline = next;
    }
}

}  // namespace

std::size_t parseSmaps(std::string_view text, bool atEnd,
                       const std::function<void(const SmapsEntry&)>& consume) {
    FieldLayout layout;
    SmapsEntry entry;
    std::size_t entryStart = 0;
    while (entryStart < text.size()) {
        const std::size_t headerEnd = text.find('\n', entryStart);
        if (headerEnd == std::string_view::npos) break;
        const std::string_view header = text.substr(entryStart, headerEnd - entryStart);
        const bool isEntry = isHeader(header) && parseHeader(header, entry);
        // The fields' text starts with the newline that ends the header line.
        const std::string_view fields = text.substr(headerEnd);
        std::size_t length = isEntry ? layout.read(fields, entry) : 0;
        if (length == 0 && isEntry) {
            const auto found = searchFields(fields, atEnd, entry);
            if (!found) break;
            length = *found;
            layout.learn(fields.substr(0, length + 1));
        }
        if (isEntry) consume(entry);
        entryStart = std::min(headerEnd + length + 1, text.size());
    }
    return atEnd ? text.size() : entryStart;
}

}  // namespace zorbel
