#include "corpse/ReportDirectory.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string_view>
#include <system_error>
#include <vector>

namespace zorbel {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTimeFormat = "%Y%m%dT%H%M%SZ-";
constexpr std::string_view kTimePattern = "ddddddddTddddddZ-";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Whether the name is one of a report's files.
bool isOfReport(std::string_view name) {
    if (name.size() <= kTimePattern.size()) return false;
    return std::ranges::equal(kTimePattern, name.substr(0, kTimePattern.size()), [](char pattern, char c) {
        return pattern == 'd' ? isDigit(c) : pattern == c;
    });
}

}  // namespace

Result<void> ReportDirectory::make() const {
    std::error_code error;
    fs::create_directories(fs::path(_path).parent_path(), error);
    if (mkdir(_path.c_str(), S_IRWXU) == 0 || errno == EEXIST) return {};
    return Error::last().on(_path);
}

std::string ReportDirectory::pathFor(std::time_t time, std::int32_t pid, const std::string& program) const {
    constexpr std::size_t kLongestName = 64;
    std::string name = program.substr(0, kLongestName);
    const auto isPlain = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '+';
    };
    std::ranges::replace_if(name, std::not_fn(isPlain), '_');
    std::tm parts{};
    gmtime_r(&time, &parts);
    char stamp[32] = {};
    std::strftime(stamp, sizeof stamp, kTimeFormat, &parts);
    return _path + "/" + stamp + std::to_string(pid) + "-" + name;
}

void ReportDirectory::prune(std::size_t mostReports, std::uint64_t mostBytes,
                            const std::string& keptPath) const {
    struct Report {
        fs::file_time_type written = fs::file_time_type::min();
        std::vector<fs::path> files;
        std::uint64_t bytes = 0;
    };
    std::map<std::string, Report> reports;
    std::uint64_t bytes = 0;
    std::error_code error;
    for (fs::directory_iterator file(_path, error); !error && file != fs::directory_iterator();
         file.increment(error)) {
        const std::string name = file->path().filename();
        if (!isOfReport(name)) continue;
        std::error_code isGone;  // Other programs may remove files at the same time.
        const std::uint64_t size = file->file_size(isGone);
        const fs::file_time_type written = file->last_write_time(isGone);
        if (isGone) continue;
        if (name.ends_with(kPartSuffix)) {
            // A part that old was left behind by a handler that was killed.
            if (fs::file_time_type::clock::now() - written > std::chrono::days(1)) fs::remove(*file, isGone);
            continue;
        }
        Report& report = reports[name.substr(0, name.find('.'))];
        report.written = std::max(report.written, written);
        report.files.push_back(file->path());
        report.bytes += size;
        bytes += size;
    }
    reports.erase(fs::path(keptPath).filename());
    std::vector<const Report*> oldestFirst;
    oldestFirst.reserve(reports.size());
    for (const auto& [name, report] : reports) oldestFirst.push_back(&report);
    std::ranges::stable_sort(oldestFirst, {}, &Report::written);
    std::size_t count = reports.size() + 1;
    for (const Report* report : oldestFirst) {
        if (count <= mostReports && bytes <= mostBytes) return;
        for (const fs::path& file : report->files) fs::remove(file, error);
        --count;
        bytes -= report->bytes;
    }
}

}  // namespace zorbel
