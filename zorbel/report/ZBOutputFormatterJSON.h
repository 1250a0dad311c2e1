#pragma once

#include <boost/json/object.hpp>
#include <string>
#include <utility>
#include <vector>

#include "report/ZBOutputFormatter.h"

namespace zorbel {

/// The report for programs: one JSON document, whose form docs/report.schema.json tells. It is kept in memory
/// and written when the report ends. Processes come in the order of the report and categories in that of its
/// tables, so that equal states of memory give equal bytes.
class ZBOutputFormatterJSON final : public ZBOutputFormatter {
  public:
    /// The path is that of the file to be written, which is not touched before the end of the report.
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
    /// Replaces what the file held. A message tells when it can't be written.
    void end() override;

  private:
    /// The figures of a table. As JSON values they would take several times the memory, which shows in the
    /// time of a run.
    using CategoryTable = std::vector<std::pair<Name, SizeTotals>>;

    struct Process {
        boost::json::object data;  ///< All but the categories.
        CategoryTable categories;
    };
    class Writer;

    static CategoryTable _tableOf(const Categories& categories, const std::vector<Name>& sortedKeys);
    /// Writes the document to the file.
    [[nodiscard]] Result<void> _write() const;

    Diagnostics& _diagnostics;
    std::string _path;
    bool _isPageSizeSet = false;
    boost::json::object _data;  ///< The document, all but the processes and the summary.
    std::vector<Process> _processes;
    CategoryTable _summary;
};

}  // namespace zorbel
