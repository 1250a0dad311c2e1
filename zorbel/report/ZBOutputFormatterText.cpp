#include "report/ZBOutputFormatterText.h"

#include <bsd/stdlib.h>

#include <cinttypes>

#include "inspect/BreakDownMode.h"

namespace zorbel {

namespace {

struct ColumnWidths {
    std::size_t dirty;
    std::size_t swapped;
    std::size_t clean;
    std::size_t reclaimable;
    std::size_t wired;
};

constexpr ColumnWidths kFormattedWidths = {7, 11, 11, 13, 11};
constexpr ColumnWidths kExactWidths = {11, 14, 14, 14, 14};
constexpr std::size_t kRegionsWidth = 10;

/// Most sizes are multiples of it.
constexpr std::uint64_t kScaledGranule = 4096;

/// Of a larger group, only the number of members is shown.
constexpr std::size_t kMostMembersNamed = 20;

constexpr const char* kRule = "==========";
constexpr const char* kDashes = "---";

/// Appends the text to the row, at the right of a column; a longer text takes more room.
void appendAligned(std::string& row, std::size_t width, std::string_view text) {
    if (text.size() < width) row.append(width - text.size(), ' ');
    row += text;
}

}  // namespace

std::string ZBOutputFormatterText::formattedStringForSize(std::uint64_t size) const {
    switch (_summaryFormat) {
        case SummaryFormat::kBytes:
            return std::to_string(static_cast<std::int64_t>(size)) + " B";
        case SummaryFormat::kPages: {
            const std::uint64_t page = _pageSize == 0 ? 1 : _pageSize;
            return std::to_string((size + page - 1) / page) + " pages";
        }
        case SummaryFormat::kFormatted:
            break;
    }
    ScaledSize& scaled = _scaledSizes[size / kScaledGranule % _scaledSizes.size()];
    if (scaled.size != size || scaled.text[0] == '\0') {
        scaled.size = size;
        humanize_number(scaled.text.data(), scaled.text.size(), static_cast<std::int64_t>(size), "B",
                        HN_AUTOSCALE, 0);
    }
    return scaled.text.data();
}

void ZBOutputFormatterText::_printSeparator(const char* lineEnd) {
    const char* swapped = _shows(kShowSwapped) ? kRule : "";
    const char* wired = _shows(kShowWired) ? kRule : "";
    std::fprintf(_output, "%s%s%s%s%s%s%s%s%s%s", kRule, kRule, kRule, swapped, kRule, kRule, kRule, wired,
                 kRule, lineEnd);
}

void ZBOutputFormatterText::_printWordRow(std::string_view dirty, std::string_view swapped,
                                          std::string_view clean, std::string_view reclaimable,
                                          std::string_view wired, std::string_view regions,
                                          std::string_view category) {
    const ColumnWidths& widths =
        _summaryFormat == SummaryFormat::kFormatted ? kFormattedWidths : kExactWidths;
    _row.clear();
    appendAligned(_row, widths.dirty, dirty);
    if (_shows(kShowSwapped)) appendAligned(_row, widths.swapped, swapped);
    appendAligned(_row, widths.clean, clean);
    appendAligned(_row, widths.reclaimable, reclaimable);
    if (_shows(kShowWired)) appendAligned(_row, widths.wired, wired);
    _row += ' ';
    appendAligned(_row, kRegionsWidth, regions);
    _row.append("    ").append(category) += '\n';
    std::fwrite(_row.data(), 1, _row.size(), _output);
}

void ZBOutputFormatterText::_printDashes() {
    _printWordRow(kDashes, kDashes, kDashes, kDashes, kDashes, kDashes, kDashes);
}

void ZBOutputFormatterText::_printSizeRow(const SizeTotals& totals, std::string_view category) {
    const SizeCounts& sizes = totals.sizes;
    const auto textIfShown = [this](OutputOptions option, std::uint64_t size) {
        return _shows(option) ? formattedStringForSize(size) : std::string();
    };
    _printWordRow(formattedStringForSize(sizes.charged()), textIfShown(kShowSwapped, sizes.swapped),
                  formattedStringForSize(sizes.clean), formattedStringForSize(sizes.reclaimable),
                  textIfShown(kShowWired, sizes.wired),
                  std::to_string(static_cast<std::int32_t>(totals.totalRegions)), category);
}

void ZBOutputFormatterText::_printTable(const Categories& categories, const std::vector<Name>& sortedKeys,
                                        const SizeTotals& total) {
    _printWordRow("Dirty", "(Swapped)", "Clean", "Reclaimable", "(Wired)", "Regions", "Category");
    _printDashes();
    for (const Name key : sortedKeys) _printSizeRow(categories.at(key)->totals(), key.text());
    _printDashes();
    _printSizeRow(total, "TOTAL");
}

void ZBOutputFormatterText::printProcessHeader(const ZBProcess& process) {
    ++_processCount;
    _pageSize = process.pageSize();
    _printSeparator("\n");
    // The line ends with the total or a block of messages.
    std::fprintf(_output, "%s: %s-bit", process.displayString().c_str(), process.is64bit() ? "64" : "32");
    if (!process.warnings().empty())
        std::fputs("\nWarnings were encountered while examining the process.\n", _output);
    for (const std::string& warning : process.warnings()) std::fprintf(_output, "\t%s\n", warning.c_str());
    if (!process.errors().empty())
        std::fputs("\nErrors were encountered while examining the process. No results gathered.\n", _output);
    for (const std::string& error : process.errors()) std::fprintf(_output, "\t%s\n", error.c_str());
}

void ZBOutputFormatterText::endProcessHeader(const ZBProcess& /*process*/) { _printSeparator("\n\n"); }

void ZBOutputFormatterText::printProcessTotal(std::uint64_t zorbel, const ZBProcess& process) {
    std::fprintf(_output, "\tZorbel: %s (%" PRIu32 " bytes per page)\n",
                 formattedStringForSize(zorbel).c_str(), process.pageSize());
}

void ZBOutputFormatterText::printProcessCategories(const Categories& categories,
                                                   const std::vector<Name>& sortedKeys,
                                                   const SizeTotals& total) {
    _printTable(categories, sortedKeys, total);
    std::fputs("\n", _output);
}

void ZBOutputFormatterText::printSharedCategories(const Categories& categories,
                                                  const std::vector<Name>& sortedKeys,
                                                  const ProcessGroup& sharedWith, const ZBProcess& process,
                                                  const SizeTotals& total) {
    if (sharedWith.size() > kMostMembersNamed) {
        std::fprintf(_output, "Shared with %zu processes:\n", sharedWith.size());
    } else {
        const char* separator = "Shared with";
        for (const ZBProcess* member : sharedWith.members()) {
            if (member == &process) continue;
            std::fprintf(_output, "%s %s", separator, member->displayString().c_str());
            separator = ",";
        }
        std::fputs(":\n", _output);
    }
    _printTable(categories, sortedKeys, total);
    std::fputs("\n", _output);
}

void ZBOutputFormatterText::printProcessAuxData(const ZBAuxDataDictionary* auxData) {
    _printAuxBlock(auxData);
}

void ZBOutputFormatterText::printGlobalAuxData(const ZBAuxDataDictionary* auxData) {
    if (_processCount == 1) return;
    std::fputs("\n", _output);
    _printAuxBlock(auxData);
}

void ZBOutputFormatterText::_printAuxBlock(const ZBAuxDataDictionary* auxData) {
    if (auxData == nullptr) return;
    std::fputs("Auxiliary data:\n", _output);
    _printAuxData(*auxData, 1);
    std::fputs("\n", _output);
}

void ZBOutputFormatterText::_printAuxData(const ZBAuxDataDictionary& auxData, unsigned indent) {
    for (const auto& [label, datum] : auxData.entries()) {
        for (unsigned tab = 0; tab < indent; ++tab) std::fputc('\t', _output);
        if (datum->isContainer()) {
            std::fprintf(_output, "%s:\n", label.c_str());
            _printAuxData(static_cast<const ZBAuxDataDictionary&>(*datum), indent + 1);
        } else {
            const auto value = static_cast<const ZBAuxData&>(*datum).value();
            std::fprintf(_output, "%s: %s\n", label.c_str(),
                         formattedStringForSize(static_cast<std::uint64_t>(value)).c_str());
        }
    }
}

void ZBOutputFormatterText::_printNames(const char* title, const std::vector<const ZBProcess*>& processes) {
    if (processes.empty()) return;
    std::fputs(title, _output);
    for (const ZBProcess* process : processes) std::fprintf(_output, "\t%s\n", process->name().c_str());
}

void ZBOutputFormatterText::printProcessesWithWarnings(
    const std::vector<const ZBProcess*>& processesWithWarnings,
    const std::vector<const ZBProcess*>& processesWithErrors, const std::vector<std::string>& globalErrors) {
    _printNames("\nWarnings were encountered while examining the following processes:\n",
                processesWithWarnings);
    _printNames("\nErrors were encountered while examining the following processes:\n", processesWithErrors);
    if (!globalErrors.empty()) std::fputs("\nErrors were encountered:\n", _output);
    for (const std::string& error : globalErrors) std::fprintf(_output, "\t%s\n", error.c_str());
    if (!processesWithErrors.empty() || !globalErrors.empty())
        std::fputs("\nDue to errors, summary results may be invalid\n", _output);
}

void ZBOutputFormatterText::_printPhysZorbelBreakdownEnabled() {
    if (breakDownPhysZorbel(_platform)) std::fputs("Physical Zorbel Breakdown: Enabled\n", _output);
}

void ZBOutputFormatterText::printSummaryCategories(const Categories& categories,
                                                   const std::vector<Name>& sortedKeys,
                                                   const SizeTotals& total, bool hadErrors) {
    _printPhysZorbelBreakdownEnabled();
    if (_processCount == 1) return;
    _printSeparator("\n");
    std::fprintf(_output, "Summary Zorbel: %s%s\n", formattedStringForSize(total.sizes.charged()).c_str(),
                 hadErrors ? " (may be invalid due to errors)" : "");
    _printSeparator("\n\n");
    _printTable(categories, sortedKeys, total);
}

void ZBOutputFormatterText::end() { std::fflush(_output); }

}  // namespace zorbel
