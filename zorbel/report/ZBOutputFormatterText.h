#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "report/OutputFormat.h"
#include "report/ZBOutputFormatter.h"

namespace zorbel {

/// The report for people, written directly to a stream. Write errors of the stream are ignored.
class ZBOutputFormatterText final : public ZBOutputFormatter {
  public:
    /// The stream must outlive the formatter.
    ZBOutputFormatterText(Platform& platform, SummaryFormat format, OutputOptions options,
                          std::FILE* output = stdout)
        : _platform(platform), _summaryFormat(format), _options(options), _output(output) {}

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
    void end() override;
    void printSharedCategories(const Categories& categories, const std::vector<Name>& sortedKeys,
                               const ProcessGroup& sharedWith, const ZBProcess& process,
                               const SizeTotals& total) override;
    /// Always in pages of the process.
    void printLattixLikeOutputForProcess(const ZBProcess& process,
                                         const std::vector<const ZBMemoryRegion*>& regions) override;

    /// The size, given in bytes, in the chosen format. Pages are those of the process whose header was
    /// printed last.
    [[nodiscard]] std::string formattedStringForSize(std::uint64_t size) const;

  private:
    [[nodiscard]] bool _shows(OutputOptions option) const { return (_options & option) != 0; }
    void _printSeparator(const char* lineEnd);
    /// A line with one word for each size column; a hidden column is left out.
    void _printWordRow(std::string_view dirty, std::string_view swapped, std::string_view clean,
                       std::string_view reclaimable, std::string_view wired, std::string_view regions,
                       std::string_view category);
    void _printDashes();
    void _printSizeRow(const SizeTotals& sizes, std::string_view category);
    void _printTable(const Categories& categories, const std::vector<Name>& sortedKeys,
                     const SizeTotals& total);
    void _printListingRow(const ZBMemoryRegion& region, std::uint64_t pageSize);
    void _printNames(const char* title, const std::vector<const ZBProcess*>& processes);
    void _printAuxData(const ZBAuxDataDictionary& auxData, unsigned indent);
    void _printAuxBlock(const ZBAuxDataDictionary* auxData);
    void _printPhysZorbelBreakdownEnabled();

    /// A size and its text such as "1024 MB", the longest; the text is empty until the first use.
    struct ScaledSize {
        std::uint64_t size = 0;
        std::array<char, 8> text{};
    };

    Platform& _platform;
    std::int32_t _processCount = 0;
    std::uint32_t _pageSize = 0;
    SummaryFormat _summaryFormat;
    OutputOptions _options;
    std::FILE* _output;
    std::string _row;  ///< The row being printed, kept for its memory.
    /// Texts of sizes seen before, found by size: the same few sizes fill most of a report, and scaling one
    /// takes longer than printing it.
    mutable std::array<ScaledSize, 1024> _scaledSizes;
};

}  // namespace zorbel
