#pragma once

#include <boost/json/object.hpp>
#include <string>
#include <utility>
#include <vector>

#include "report/ZBOutputFormatter.h"

namespace zorbel {

/// The report for programs: one JSON document, described by docs/report.schema.json. It is kept in memory and
/// written at the end of the report. Processes and categories have the order of the report, so that equal
/// states of memory give equal bytes.
class ZBOutputFormatterJSON final : public ZBOutputFormatter {
  public:
    /// path is the file to write. It is not touched before the end of the report.
    ZBOutputFormatterJSON(Platform& platform, std::string path);

    void printProcessHeader(const ZBProcess& process) override;
    void endProcessHeader(const ZBProcess& process) override;
    void printProcessTotal(std::uint64_t zorbel, const ZBProcess& process) override;
    void printProcessCategories(const Categories& categories, const std::vector<Name>& sortedKeys,
                                const SizeTotals& total) override;
    void printProcessAuxData(const ZBAuxDataDictionary* auxData) override;
    void printProcessesWithWarnings(const std::vector<const ZBProcess*>& processesWithWarnings,
                                    const std::vector<const ZBProcess*>& processesWithErrors,
                                    const std::vector<std::string>& globalErrors) override;
    void printSummaryCategories(const Categories& categories, const std::vector<Name>& sortedKeys,
                                const SizeTotals& total, bool hadErrors) override;
    void printGlobalAuxData(const ZBAuxDataDictionary* auxData) override;
    /// Overwrites the file. Reports a failure as a diagnostic.
    void end() override;

  private:
    /// The figures of a table. As JSON values they would take several times the memory and slow the run down.
    using CategoryTable = std::vector<std::pair<Name, SizeTotals>>;

    struct Process {
        boost::json::object data;  ///< Everything except the categories.
        CategoryTable categories;
    };
    class Writer;

    static CategoryTable _tableOf(const Categories& categories, const std::vector<Name>& sortedKeys);
    /// Writes the document to the file.
    [[nodiscard]] Result<void> _write() const;

    Diagnostics& _diagnostics;
    std::string _path;
    bool _isPageSizeSet = false;
    boost::json::object _data;  ///< The document without the processes and the summary.
    std::vector<Process> _processes;
    CategoryTable _summary;
};

}  // namespace zorbel
