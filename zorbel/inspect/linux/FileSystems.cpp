#include "inspect/linux/FileSystems.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <string_view>

#include "inspect/linux/ProcFiles.h"

namespace zorbel {

namespace {

bool livesInMemory(std::string_view type) {
    constexpr std::string_view kTypes[] = {"tmpfs", "ramfs", "devtmpfs", "rootfs", "hugetlbfs"};
    return std::find(std::begin(kTypes), std::end(kTypes), type) != std::end(kTypes);
}

}  // namespace

FileSystems::FileSystems() {
    const FileDescriptor self(open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (self.isOpen()) addMountsOf(self.get());
    const FileDescriptor probe(memfd_create("zorbel", MFD_CLOEXEC));
    struct stat status {};
    if (probe.isOpen() && fstat(probe.get(), &status) == 0) _kinds[status.st_dev] = Kind::kKernel;
}

FileSystems::Kind FileSystems::kindOf(std::uint64_t device) {
    const std::lock_guard lock(_mutex);
    const auto known = _kinds.find(device);
    return known == _kinds.end() ? Kind::kUnknown : known->second;
}

/// A line is "id parent major:minor root mount-point options [optional fields] - type source options".
void FileSystems::addMountsOf(int processDirectory) {
    const auto text = readWholeFile("mountinfo", processDirectory);
    if (!text) return;
    const std::lock_guard lock(_mutex);
    std::string_view mountinfo = *text;
    while (!mountinfo.empty()) {
        std::string_view line = mountinfo.substr(0, mountinfo.find('\n'));
        mountinfo.remove_prefix(std::min(line.size() + 1, mountinfo.size()));
        const std::size_t separator = line.find(" - ");
        if (separator == std::string_view::npos) continue;
        std::string_view type = line.substr(separator + 3);
        type = type.substr(0, type.find(' '));
        takeNumber(line);
        takeNumber(line);
        const auto majorNumber = takeNumber(line);
        if (!majorNumber || line.empty()) continue;
        line.remove_prefix(1);
        const auto minorNumber = takeNumber(line);
        if (!minorNumber) continue;
        _kinds[makedev(static_cast<unsigned>(*majorNumber), static_cast<unsigned>(*minorNumber))] =
            livesInMemory(type) ? Kind::kMemory : Kind::kStorage;
    }
}

}  // namespace zorbel
