#include <array>
#include <boost/json/object.hpp>
#include <boost/json/serializer.hpp>
#include <boost/json/value.hpp>
#include <type_traits>

#include "memgraph/Members.h"
#include "memgraph/MemoryGraph.h"

namespace json = boost::json;

namespace zorbel {

namespace {

/// Writes records as JSON objects. Reuses one object: creating one takes longer than writing it.
template <typename Record, std::size_t size>
class RecordWriter {
  public:
    RecordWriter(std::FILE* file, const std::array<Member<Record>, size>& members)
        : _file(file), _members(members) {
        for (const Member<Record>& member : members) _object.emplace(member.name, nullptr);
    }

    /// Leaves out this many characters at the end.
    void write(const Record& record, std::size_t omitted = 0) {
        auto entry = _object.begin();
        for (const Member<Record>& member : _members) {
            json::value& value = (entry++)->value();
            std::visit([&](auto field) { _assign(value, record.*field); }, member.field);
        }
        _serializer.reset(&_object);
        std::array<char, 4096> buffer;
        while (!_serializer.done()) {
            std::string_view piece = _serializer.read(buffer.data(), buffer.size());
            if (_serializer.done()) piece.remove_suffix(omitted);
            std::fwrite(piece.data(), 1, piece.size(), _file);
        }
    }

  private:
    static void _assign(json::value& value, const Name& name) { _assign(value, name.text()); }
    static void _assign(json::value& value, const std::string& text) {
        if (value.is_string())
            value.get_string().assign(text);  // Reuses its memory.
        else
            value = text;
    }
    template <typename Scalar>
    requires std::is_arithmetic_v<Scalar>
    static void _assign(json::value& value, Scalar scalar) { value = scalar; }

    std::FILE* _file;
    const std::array<Member<Record>, size>& _members;
    json::object _object;
    json::serializer _serializer;
};

}  // namespace

void writeMemoryGraph(std::FILE* file, const MemoryGraph& graph) {
    RecordWriter(file, kGraphMembers).write(graph, 1);
    std::fprintf(file, ",\"%s\":[", kRegionsMember.data());
    RecordWriter regions(file, kRegionMembers);
    RecordWriter parts(file, kPartMembers);
    const char* separator = "\n";
    for (const GraphRegion& region : graph.regions) {
        std::fputs(separator, file);
        separator = ",\n";
        if (region.shared.empty()) {
            regions.write(region);
            continue;
        }
        regions.write(region, 1);
        std::fprintf(file, ",\"%s\":", kSharedMember.data());
        char bracket = '[';
        for (const GraphSharedPart& part : region.shared) {
            std::fputc(bracket, file);
            parts.write(part);
            bracket = ',';
        }
        std::fputs("]}", file);
    }
    std::fputs("\n]}\n", file);
}

}  // namespace zorbel
