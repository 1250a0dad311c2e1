#include "report/ZBOutputFormatterJSON.h"

#include <array>
#include <boost/json/array.hpp>
#include <boost/json/serializer.hpp>
#include <boost/json/value.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string_view>

#include "inspect/BreakDownMode.h"

namespace json = boost::json;

namespace zorbel {

namespace {

void append(json::array& array, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) array.emplace_back(text);
}

/// Leaves out what is not known.
void setDetails(json::object& process, const ProcessDetails& details) {
    process.emplace("uid", details.uid);
    process.emplace("parent", details.parent);
    if (details.started != 0) process.emplace("started", details.started);
    for (const auto& [member, text] :
         {std::pair("user", &details.user), std::pair("command", &details.command),
          std::pair("cgroup", &details.cgroup)})
        if (!text->empty()) process.emplace(member, *text);
}

void setAuxiliary(json::object& owner, const ZBAuxDataDictionary* auxData) {
    if (auxData != nullptr)
        owner["auxiliary"] = auxData->jsonRepresentation();
    else
        owner.erase("auxiliary");
}

}  // namespace

/// Writes a document to a stream, one object after another, so that it is never complete in memory.
class ZBOutputFormatterJSON::Writer {
  public:
    explicit Writer(std::FILE* file) : _file(file) {}

    void text(std::string_view text) {
        if (std::fwrite(text.data(), 1, text.size(), _file) != text.size() && _error == 0) _error = errno;
    }

    /// Writes an object without its closing brace, so that another member may follow.
    void openObject(const json::object& members) {
        _serializer.reset(&members);
        _rest(1);
    }

    void categories(const CategoryTable& table) {
        text("{");
        const char* separator = "";
        for (const auto& [name, sizes] : table) {
            text(separator);
            _serializer.reset(json::string_view(name.text()));
            _rest(0);
            text(":");
            _sizes(sizes);
            separator = ",";
        }
        text("}");
    }

    /// The first error as an errno; 0 if there was none.
    [[nodiscard]] int error() const { return _error; }

  private:
    void _sizes(const SizeTotals& totals) {
        const SizeCounts& sizes = totals.sizes;
        const std::uint64_t figures[] = {sizes.charged(),   sizes.swapped, sizes.clean,
                                         sizes.reclaimable, sizes.wired,   totals.totalRegions};
        auto member = _figures.begin();
        for (const std::uint64_t figure : figures) (member++)->value() = figure;
        _serializer.reset(&_figures);
        _rest(0);
    }

    /// Writes the serializer's output, but leaves out this many characters at its end.
    void _rest(std::size_t omitted) {
        std::array<char, 4096> buffer;
        while (!_serializer.done()) {
            std::string_view piece = _serializer.read(buffer.data(), buffer.size());
            if (_serializer.done()) piece.remove_suffix(omitted);
            text(piece);
        }
    }

    std::FILE* _file;
    int _error = 0;
    json::serializer _serializer;
    /// Reused for all categories: creating an object takes longer than writing it.
    json::object _figures{{"dirty", 0},       {"swapped", 0}, {"clean", 0},
                          {"reclaimable", 0}, {"wired", 0},   {"regions", 0}};
};

ZBOutputFormatterJSON::ZBOutputFormatterJSON(Platform& platform, std::string path)
    : _diagnostics(platform.diagnostics()), _path(std::move(path)) {
    _data.emplace("total zorbel", std::uint64_t{0});
    _data.emplace("unit", "byte");
    _data.emplace("bytes per unit", 1);
    _data.emplace("page size", platform.vm_kernel_page_size());
    if (breakDownPhysZorbel(platform)) _data.emplace("phys_zorbel_breakdown", true);
}

ZBOutputFormatterJSON::CategoryTable ZBOutputFormatterJSON::_tableOf(const Categories& categories,
                                                                     const std::vector<Name>& sortedKeys) {
    CategoryTable table;
    table.reserve(sortedKeys.size() + 1);  // One more for the summary's total.
    for (const Name key : sortedKeys) table.emplace_back(key, categories.at(key)->totals());
    return table;
}

void ZBOutputFormatterJSON::printProcessHeader(const ZBProcess& process) {
    json::object& object = _processes.emplace_back().data;
    object.emplace("name", process.name());
    object.emplace("pid", process.pid());
    if (process.details()) setDetails(object, *process.details());
    object.emplace("zorbel", std::uint64_t{0});
    object.emplace("auxiliary", json::object());
    for (const auto& [member, texts] :
         {std::pair("errors", &process.errors()), std::pair("warnings", &process.warnings())})
        if (!texts->empty()) append(object[member].emplace_array(), *texts);
    if (!std::exchange(_isPageSizeSet, true)) _data.at("page size") = process.pageSize();
}

void ZBOutputFormatterJSON::endProcessHeader(const ZBProcess& /*process*/) {}

void ZBOutputFormatterJSON::printProcessTotal(std::uint64_t zorbel, const ZBProcess& /*process*/) {
    _processes.back().data.at("zorbel") = zorbel;
}

void ZBOutputFormatterJSON::printProcessCategories(const Categories& categories,
                                                   const std::vector<Name>& sortedKeys,
                                                   const SizeTotals& /*total*/) {
    _processes.back().categories = _tableOf(categories, sortedKeys);
}

void ZBOutputFormatterJSON::printProcessAuxData(const ZBAuxDataDictionary* auxData) {
    setAuxiliary(_processes.back().data, auxData);
}

void ZBOutputFormatterJSON::printProcessesWithWarnings(
    const std::vector<const ZBProcess*>& processesWithWarnings,
    const std::vector<const ZBProcess*>& processesWithErrors, const std::vector<std::string>& globalErrors) {
    json::array& errors = _data["errors"].emplace_array();
    append(errors, globalErrors);
    for (const ZBProcess* process : processesWithErrors) append(errors, process->errors());
    json::array& warnings = _data["warnings"].emplace_array();
    for (const ZBProcess* process : processesWithWarnings) append(warnings, process->warnings());
}

void ZBOutputFormatterJSON::printSummaryCategories(const Categories& categories,
                                                   const std::vector<Name>& sortedKeys,
                                                   const SizeTotals& total, bool /*hadErrors*/) {
    const Name kTotal("total");
    _summary = _tableOf(categories, sortedKeys);
    std::erase_if(_summary, [&](const auto& row) { return row.first == kTotal; });
    _summary.emplace_back(kTotal, total);
    _data.at("total zorbel") = total.sizes.charged();
}

void ZBOutputFormatterJSON::printGlobalAuxData(const ZBAuxDataDictionary* auxData) {
    setAuxiliary(_data, auxData);
}

Result<void> ZBOutputFormatterJSON::_write() const {
    std::FILE* file = std::fopen(_path.c_str(), "we");
    if (file == nullptr) return Error::last();
    Writer writer(file);
    writer.openObject(_data);
    writer.text(R"(,"summary":)");
    writer.categories(_summary);
    writer.text(R"(,"processes":[)");
    const char* separator = "";
    for (const Process& process : _processes) {
        writer.text(separator);
        writer.openObject(process.data);
        writer.text(R"(,"categories":)");
        writer.categories(process.categories);
        writer.text("}");
        separator = ",";
    }
    writer.text("]}");
    int error = writer.error();
    // Buffered data may fail only here.
    if (std::fclose(file) != 0 && error == 0) error = errno;
    if (error != 0) return Error::ofErrno(error);
    return {};
}

void ZBOutputFormatterJSON::end() {
    // If the reader of a pipe has gone, report it as an error; the other reports stay valid.
    const auto putBack = std::signal(SIGPIPE, SIG_IGN);
    const auto written = _write();
    std::signal(SIGPIPE, putBack);
    if (!written)
        _diagnostics.report("Unable to serialize/write JSON data due to error: " +
                            written.error().on(_path).description);
}

}  // namespace zorbel
