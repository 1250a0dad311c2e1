#include "inspect/ZBProcess.h"

#include <cstring>

#include "inspect/BreakDownMode.h"
#include "inspect/ZBKernelProcess.h"
#include "inspect/ZBUserProcess.h"

namespace zorbel {

namespace {

std::vector<std::string>& globalErrorList() {
    static std::vector<std::string> list;
    return list;
}

/// The executable's path in an argument area, after the count and padding zeros. The count's high bytes are
/// zero.
std::optional<std::string> pathInArgumentArea(const std::string& area) {
    const std::size_t countEnd = area.find('\0');
    if (countEnd == std::string::npos) return std::nullopt;
    const std::size_t start = area.find_first_not_of('\0', countEnd);
    if (start == std::string::npos) return std::nullopt;
    return area.substr(start, area.find('\0', start) - start);
}

}  // namespace

std::unique_ptr<ZBProcess> ZBProcess::processWithBsdInfo(Platform& platform, const BsdInfoRecord& record) {
    if ((record.pbi_flags & BsdInfoRecord::kFlagSystem) != 0)
        return ZBKernelProcess::kernelProcessWithBsdInfo(platform, record);
    return ZBUserProcess::userProcessWithBsdInfo(platform, record);
}

bool ZBProcess::initWithBsdInfo(const BsdInfoRecord& record) {
    _pid = static_cast<std::int32_t>(record.pbi_pid);
    _is64bit = (record.pbi_flags & BsdInfoRecord::kFlag64Bit) != 0;
    if (!_populateTask()) return false;
    _name = _gatherName(record);
    _displayString = _name + " [" + std::to_string(_pid) + "]";
    _pageSize = _gatherPageSize();
    return true;
}

std::unique_ptr<ZBProcess> ZBProcess::processWithPid(Platform& platform, std::int32_t pid) {
    BsdInfoRecord record;
    if (!platform.proc_pidinfo(pid, record)) return nullptr;
    return processWithBsdInfo(platform, record);
}

std::optional<std::string> ZBProcess::_nameInArgumentArea(std::string area) {
    if (!area.empty()) area.back() = '\0';
    const auto path = pathInArgumentArea(area);
    return path ? std::optional(path->substr(path->rfind('/') + 1)) : std::nullopt;
}

std::string ZBProcess::_nameForBsdInfo(Platform& platform, const BsdInfoRecord& record) {
    std::string area;
    if (platform.sysctl_procargs(static_cast<std::int32_t>(record.pbi_pid), area))
        if (auto name = _nameInArgumentArea(std::move(area))) return *std::move(name);
    return _nameForBsdInfoCommName(record);
}

std::string ZBProcess::_nameForBsdInfoCommName(const BsdInfoRecord& record) {
    if (record.pbi_name[0] != '\0')
        return {record.pbi_name, strnlen(record.pbi_name, sizeof record.pbi_name)};
    if (record.pbi_comm[0] != '\0')
        return {record.pbi_comm, strnlen(record.pbi_comm, sizeof record.pbi_comm)};
    return "Unknown";
}

void ZBProcess::reportMessages() {
    for (const std::string& message : _messages) _platform.diagnostics().report(message);
    _messages.clear();
}

void ZBProcess::_addGlobalError(std::string text) { globalErrorList().push_back(std::move(text)); }
void ZBProcess::_clearGlobalErrors() { globalErrorList().clear(); }
const std::vector<std::string>& ZBProcess::globalErrors() { return globalErrorList(); }

std::shared_ptr<const ZBAuxDataDictionary> ZBProcess::auxData() const {
    static const auto kEmpty = std::make_shared<const ZBAuxDataDictionary>();
    return kEmpty;
}

bool ZBProcess::breakDownPhysZorbel() const { return zorbel::breakDownPhysZorbel(_platform); }

}  // namespace zorbel
