#include <algorithm>
#include <array>
#include <bit>
#include <boost/json/basic_parser_impl.hpp>
#include <new>
#include <type_traits>
#include <utility>

#include "base/Utf8.h"
#include "memgraph/Compression.h"
#include "memgraph/Members.h"
#include "memgraph/MemoryGraph.h"

namespace json = boost::json;

namespace zorbel {

namespace {

/// Bytes. Snapshots cut off longer paths too.
constexpr std::size_t kLongestText = 1024;

Error errorOf(std::string description) { return {"MemoryGraphErrorDomain", 1, std::move(description)}; }

/// Stores a value in the member's field; returns what is wrong if it does not fit.
template <typename Record, typename Value>
std::string fill(Record& record, const Member<Record>& member, Value value) {
    const auto fillField = [&](auto& target) -> std::string {
        using Target = std::remove_reference_t<decltype(target)>;
        if constexpr (std::is_same_v<Target, bool>) {
            if constexpr (!std::is_same_v<Value, bool>)
                return "must be true or false";
            else
                target = value;
        } else if constexpr (std::is_arithmetic_v<Target>) {
            if constexpr (std::is_same_v<Value, std::uint64_t>)
                if (value <= member.most) {
                    target = static_cast<Target>(value);
                    return {};
                }
            return "must be a whole number from 0 to " + std::to_string(member.most);
        } else {
            if constexpr (!std::is_same_v<Value, std::string_view>)
                return "must be a text";
            else if (value.size() > kLongestText)
                return "is longer than " + std::to_string(kLongestText) + " bytes";
            else
                target = Target(printable(value, kLongestText));
        }
        return {};
    };
    return std::visit([&](auto field) { return fillField(record.*field); }, member.field);
}

/// Stands for a value of a type that no member has.
struct NoSuchValue {};

/// Tracks which members of an object were seen, and the current one.
class MemberCursor {
  public:
    static constexpr std::size_t kUnknown = SIZE_MAX;

    void reset() {
        _seen = 0;
        _current = kUnknown;
    }

    /// Moves to the member with this name. Most files have the order of our writer.
    template <typename Members>
    void moveTo(const Members& members, std::string_view name) {
        const std::size_t next = _current + 1;
        if (next < members.size() && members[next].name == name) {
            _current = next;
            return;
        }
        const auto found =
            std::find_if(members.begin(), members.end(), [&](const auto& m) { return m.name == name; });
        _current = found == members.end() ? kUnknown : static_cast<std::size_t>(found - members.begin());
    }

    [[nodiscard]] std::size_t current() const { return _current; }
    void setCurrent(std::size_t index) { _current = index; }

    /// Marks the current member as seen; false if it was seen before.
    bool markSeen() {
        const std::uint32_t bit = std::uint32_t{1} << _current;
        const bool isNew = (_seen & bit) == 0;
        _seen |= bit;
        return isNew;
    }

    /// Index of the first member that was not seen; count if none is missing.
    [[nodiscard]] std::size_t firstMissing(std::size_t count) const {
        return std::min<std::size_t>(static_cast<std::size_t>(std::countr_one(_seen)), count);
    }

  private:
    std::uint32_t _seen = 0;
    std::size_t _current = kUnknown;
};

/// Where in the document the next event belongs.
class Place {
  public:
    /// Each is inside of the one before.
    enum class Level : std::uint8_t { kStart, kDocument, kRegions, kRegion, kParts, kPart };

    [[nodiscard]] Level level() const { return _level; }

    void enter() {
        _level = static_cast<Level>(static_cast<int>(_level) + 1);
        if (isInObject()) cursor().reset();
    }
    void leave() { _level = static_cast<Level>(static_cast<int>(_level) - 1); }

    [[nodiscard]] bool isInObject() const {
        return _level == Level::kDocument || _level == Level::kRegion || _level == Level::kPart;
    }

    /// Members of the current object. The one after the last of its table is its array.
    [[nodiscard]] MemberCursor& cursor() { return _cursors[static_cast<std::size_t>(_level)]; }
    [[nodiscard]] const MemberCursor& cursor() const { return _cursors[static_cast<std::size_t>(_level)]; }

    void moveTo(std::string_view name) {
        switch (_level) {
            case Level::kDocument:
                return _moveTo(kGraphMembers, kRegionsMember, name);
            case Level::kRegion:
                return _moveTo(kRegionMembers, kSharedMember, name);
            default:
                return cursor().moveTo(kPartMembers, name);
        }
    }

    [[nodiscard]] bool isAtUnknown() const {
        return isInObject() && cursor().current() == MemberCursor::kUnknown;
    }
    [[nodiscard]] bool isAtArray() const {
        return (_level == Level::kDocument && cursor().current() == kGraphMembers.size()) ||
               (_level == Level::kRegion && cursor().current() == kRegionMembers.size());
    }

    /// The name of the first required member that the current object does not have; empty if it has all.
    [[nodiscard]] std::string_view missingMember() const {
        switch (_level) {
            case Level::kDocument: {
                const std::size_t missing = cursor().firstMissing(kGraphMembers.size() + 1);
                if (missing == kGraphMembers.size()) return kRegionsMember;
                return missing < kGraphMembers.size() ? kGraphMembers[missing].name : std::string_view();
            }
            case Level::kRegion:
                return _missingIn(kRegionMembers);
            default:
                return _missingIn(kPartMembers);
        }
    }

    /// Path of the current member, such as regions[2].type.
    [[nodiscard]] std::string path(const MemoryGraph& graph) const {
        const auto element = [](std::string_view array, std::size_t index) {
            return std::string(array) + "[" + std::to_string(index) + "]";
        };
        std::string name;
        if (_level == Level::kDocument) name = _memberName(kGraphMembers, kRegionsMember);
        if (_level <= Level::kDocument) return name.empty() ? "the document" : name;
        if (_level == Level::kRegions) return element(kRegionsMember, graph.regions.size());
        const std::string region = element(kRegionsMember, graph.regions.size() - 1);
        if (_level == Level::kRegion) {
            name = _memberName(kRegionMembers, kSharedMember);
            return name.empty() ? region : region + "." + name;
        }
        const std::size_t parts = graph.regions.back().shared.size();
        if (_level == Level::kParts) return region + "." + element(kSharedMember, parts);
        name = _memberName(kPartMembers, "");
        return region + "." + element(kSharedMember, parts - 1) + (name.empty() ? "" : ".") + name;
    }

  private:
    template <typename Members>
    void _moveTo(const Members& members, std::string_view array, std::string_view name) {
        cursor().moveTo(members, name);
        if (name == array) cursor().setCurrent(members.size());
    }
    template <typename Members>
    [[nodiscard]] std::string_view _missingIn(const Members& members) const {
        const std::size_t missing = cursor().firstMissing(members.size());
        return missing < members.size() ? members[missing].name : std::string_view();
    }
    template <typename Members>
    [[nodiscard]] std::string _memberName(const Members& members, std::string_view array) const {
        const std::size_t current = cursor().current();
        if (current < members.size()) return std::string(members[current].name);
        return current == members.size() ? std::string(array) : std::string();
    }

    Level _level = Level::kStart;
    std::array<MemberCursor, 6> _cursors;  ///< By level.
};

/// Receives the parser's events and fills a graph. Skips unknown members.
class Handler {
  public:
    // Required by the parser. No limits: what is skipped takes no memory.
    static constexpr std::size_t max_object_size = SIZE_MAX;
    static constexpr std::size_t max_array_size = SIZE_MAX;
    static constexpr std::size_t max_key_size = SIZE_MAX;
    static constexpr std::size_t max_string_size = SIZE_MAX;

    bool on_document_begin(json::error_code& /*ec*/) { return true; }
    bool on_document_end(json::error_code& /*ec*/) { return true; }

    bool on_object_begin(json::error_code& ec) {
        if (_isPassedOver()) return _passOver();
        if (_place.isInObject()) return _take(NoSuchValue(), ec);
        if (_place.level() == Level::kRegions) _graph.regions.emplace_back();
        if (_place.level() == Level::kParts) {
            std::vector<GraphSharedPart>& parts = _graph.regions.back().shared;
            if (parts.size() == kMostParts)
                return _fail("is more than the " + std::to_string(kMostParts) + " that a region may have",
                             ec);
            parts.emplace_back();
        }
        _place.enter();
        return true;
    }

    bool on_object_end(std::size_t /*count*/, json::error_code& ec) {
        if (_passedOver > 0) return _leave();
        const std::string_view missing = _place.missingMember();
        _place.cursor().reset();  // From here on, errors are about the object, not a member.
        if (!missing.empty()) return _fail("\"" + std::string(missing) + "\" is missing", ec);
        if (_place.level() == Level::kRegion && !_checkRegion(ec)) return false;
        if (_place.level() == Level::kPart && !_checkPart(ec)) return false;
        _place.leave();
        return true;
    }

    bool on_array_begin(json::error_code& ec) {
        if (_isPassedOver()) return _passOver();
        if (!_place.isAtArray()) return _take(NoSuchValue(), ec);
        if (!_place.cursor().markSeen()) return _fail("appears twice", ec);
        _place.enter();
        return true;
    }

    bool on_array_end(std::size_t /*count*/, json::error_code& /*ec*/) {
        if (_passedOver > 0) return _leave();
        _place.leave();
        return true;
    }

    bool on_key_part(json::string_view part, std::size_t /*size*/, json::error_code& /*ec*/) {
        _keep(part);
        return true;
    }

    bool on_key(json::string_view rest, std::size_t /*size*/, json::error_code& /*ec*/) {
        _keep(rest);
        if (_passedOver == 0) _place.moveTo(_text);
        _text.clear();
        return true;
    }

    bool on_string_part(json::string_view part, std::size_t /*size*/, json::error_code& /*ec*/) {
        _keep(part);
        return true;
    }

    bool on_string(json::string_view rest, std::size_t /*size*/, json::error_code& ec) {
        _keep(rest);
        const bool isTaken = _take(std::string_view(_text), ec);
        _text.clear();
        return isTaken;
    }

    bool on_number_part(json::string_view /*part*/, json::error_code& /*ec*/) { return true; }
    bool on_int64(std::int64_t number, json::string_view /*text*/, json::error_code& ec) {
        return number < 0 ? _take(NoSuchValue(), ec) : _take(static_cast<std::uint64_t>(number), ec);
    }
    bool on_uint64(std::uint64_t number, json::string_view /*text*/, json::error_code& ec) {
        return _take(number, ec);
    }
    bool on_double(double /*number*/, json::string_view /*text*/, json::error_code& ec) {
        return _take(NoSuchValue(), ec);
    }
    bool on_bool(bool value, json::error_code& ec) { return _take(value, ec); }
    bool on_null(json::error_code& ec) { return _take(NoSuchValue(), ec); }
    bool on_comment_part(json::string_view /*part*/, json::error_code& /*ec*/) { return true; }
    bool on_comment(json::string_view /*rest*/, json::error_code& /*ec*/) { return true; }

    /// What is wrong with the graph; empty if nothing is.
    [[nodiscard]] const std::string& problem() const { return _problem; }
    /// The same for what the parser itself rejects.
    [[nodiscard]] std::string problemOfDepth() const { return _place.path(_graph) + " is nested too deep"; }
    [[nodiscard]] MemoryGraph& graph() { return _graph; }

  private:
    using Level = Place::Level;

    [[nodiscard]] bool _isPassedOver() const { return _passedOver > 0 || _place.isAtUnknown(); }
    bool _passOver() {
        ++_passedOver;
        return true;
    }
    bool _leave() {
        --_passedOver;
        return true;
    }

    /// Adds a part of a text, up to the length that shows that it is too long.
    void _keep(std::string_view part) { _text += part.substr(0, kLongestText + 1 - _text.size()); }

    template <typename Value>
    bool _take(Value value, json::error_code& ec) {
        if (_isPassedOver()) return true;
        if (_place.isAtArray()) return _fail("must be an array", ec);
        switch (_place.level()) {
            case Level::kDocument:
                return _fillMember(static_cast<MemoryGraph&>(_graph), kGraphMembers, value, ec) &&
                       _checkMember(ec);
            case Level::kRegion:
                return _fillMember(_graph.regions.back(), kRegionMembers, value, ec);
            case Level::kPart:
                return _fillMember(_graph.regions.back().shared.back(), kPartMembers, value, ec);
            default:
                return _fail("must be an object", ec);
        }
    }

    template <typename Record, typename Members, typename Value>
    bool _fillMember(Record& record, const Members& members, Value value, json::error_code& ec) {
        const std::string problem = fill(record, members[_place.cursor().current()], value);
        if (!problem.empty()) return _fail(problem, ec);
        return _place.cursor().markSeen() || _fail("appears twice", ec);
    }

    /// Checks the document's last member: format, version and page size.
    bool _checkMember(json::error_code& ec) {
        const std::string_view name = kGraphMembers[_place.cursor().current()].name;
        const MemoryGraph known;
        if (name == "format" && _graph.format != known.format)
            return _fail("is not \"" + known.format + "\"", ec);
        if (name == "version" && _graph.version != known.version)
            return _fail("is " + std::to_string(_graph.version) + ", and only " +
                             std::to_string(known.version) + " can be read",
                         ec);
        if (name == "vmPageSize" &&
            (_graph.vmPageSize < kLeastPageSize || !std::has_single_bit(_graph.vmPageSize)))
            return _fail("must be a power of two from " + std::to_string(kLeastPageSize) + " to " +
                             std::to_string(kMostPageSize),
                         ec);
        return true;
    }

    /// Checks the last region: its range, its order, its sizes and those of its parts.
    bool _checkRegion(json::error_code& ec) {
        const GraphRegion& region = _graph.regions.back();
        if (region.length == 0) return _fail("has no length", ec);
        if (region.address + region.length < region.address)
            return _fail("reaches beyond the last address", ec);
        if (region.address < _end) return _fail("begins before the end of the one before", ec);
        if (region.dirty_size > region.resident_size) return _fail(kTooDirty, ec);
        std::uint64_t dirty = 0, clean = 0, swapped = 0;  // Can't overflow: there are few parts.
        for (const GraphSharedPart& part : region.shared) {
            dirty += part.dirty_size;
            clean += part.resident_size - part.dirty_size;
            swapped += part.swapped_out_size;
        }
        if (dirty > region.dirty_size) return _fail("has fewer dirty bytes than its parts", ec);
        if (clean > region.resident_size - region.dirty_size)
            return _fail("has fewer clean bytes than its parts", ec);
        if (swapped > region.swapped_out_size) return _fail("has fewer swapped bytes than its parts", ec);
        _end = region.address + region.length;
        return true;
    }

    bool _checkPart(json::error_code& ec) {
        const GraphSharedPart& part = _graph.regions.back().shared.back();
        if (part.dirty_size > part.resident_size) return _fail(kTooDirty, ec);
        if (part.object_dirty_size > part.object_resident_size)
            return _fail("has an object with more dirty than resident bytes", ec);
        return true;
    }

    bool _fail(const std::string& what, json::error_code& ec) {
        _problem = _place.path(_graph) + " " + what;
        ec = boost::system::errc::make_error_code(boost::system::errc::invalid_argument);
        return false;
    }

    static constexpr const char* kTooDirty = "has more dirty than resident bytes";

    MemoryGraph _graph;
    Place _place;
    std::size_t _passedOver = 0;  ///< Nesting depth inside of an unknown member.
    std::string _text;            ///< The parts so far of a text that comes in parts.
    std::uint64_t _end = 0;       ///< End of the last region.
    std::string _problem;
};

/// Line and column in a text.
class Position {
  public:
    void moveOver(std::string_view text) {
        _line += static_cast<std::size_t>(std::ranges::count(text, '\n'));
        const std::size_t last = text.rfind('\n');
        _column = last == std::string_view::npos ? _column + text.size() : text.size() - last;
    }
    [[nodiscard]] std::string text() const {
        return " (line " + std::to_string(_line) + ", column " + std::to_string(_column) + ")";
    }

  private:
    std::size_t _line = 1;
    std::size_t _column = 1;
};

/// The error text for the user.
std::string problemOf(const Handler& handler, json::error_code ec, const Position& position) {
    if (!handler.problem().empty()) return handler.problem() + position.text();
    if (ec == json::error::too_deep) return handler.problemOfDepth() + position.text();
    return "not JSON: " + ec.message() + position.text();
}

Result<MemoryGraph> parse(std::string_view contents) {
    json::basic_parser<Handler> parser{json::parse_options()};
    Position position;
    json::error_code ec;
    const auto damage = forEachPiece(contents, [&](std::string_view piece) {
        const std::size_t parsed = parser.write_some(true, piece.data(), piece.size(), ec);
        position.moveOver(piece.substr(0, parsed));
        if (!ec && parsed < piece.size()) ec = json::error::extra_data;
        return !ec;
    });
    if (damage && !ec) return errorOf(*damage);
    if (!ec) parser.write_some(false, "", 0, ec);
    if (ec) return errorOf(problemOf(parser.handler(), ec, position));
    return std::move(parser.handler().graph());
}

}  // namespace

Result<MemoryGraph> parseMemoryGraph(std::string_view contents) {
    try {
        return parse(contents);
    } catch (const std::bad_alloc&) {
        return errorOf("out of memory");
    }
}

}  // namespace zorbel
