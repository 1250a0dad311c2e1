#include "linux/TaskSnapshot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/Files.h"
#include "base/Utf8.h"
#include "linux/kinds/RegionKinds.h"
#include "linux/process/PageSize.h"
#include "linux/process/ProcessDirectory.h"

namespace zorbel {

namespace {

/// Fits many entries. The longest one has about 1 KiB of fields and an escaped path of 4 KiB.
constexpr std::size_t kBufferSize = 65536;

/// Enough for a program with some libraries.
constexpr std::size_t kUsualRegions = 256;

/// In bytes; longer paths are cut off. A process may have very many paths, and all are kept until the run
/// ends.
constexpr std::size_t kLongestPath = 1024;

/// A process that calls exec during each of these readings is reported as exited.
constexpr int kMostReadings = 3;

std::uint32_t pagesOf(std::uint64_t kibibytes) {
    return static_cast<std::uint32_t>(kibibytes * 1024 / pageSize());
}

/// Whether the address space that the smaps was opened for still exists. If not, reading returns nothing.
bool isAlive(int smaps) {
    char byte = 0;
    return pread(smaps, &byte, 1, 0) == 1;
}

/// Whether a region of a file may have pages that are no longer the file's. Swapped pages of a mapping that
/// is not writable are still the file's.
bool hasOwnPages(const SmapsEntry& entry) {
    return !entry.isShared && (entry.anonymous != 0 || entry.hugetlb() != 0 ||
                               (entry.swap != 0 && (entry.permissions & SmapsEntry::kWrite) != 0));
}

/// The share mode of an entry. All pages of a file that lives in memory only are charged. So a private
/// mapping of it without own pages counts as shared, like the file's other mappings.
std::uint8_t shareModeOf(const SmapsEntry& entry, bool hasStorage) {
    if (entry.isShared) return kShareModeShared;
    if (!mapsFile(entry))
        return entry.resident + entry.hugetlb() + entry.swap == 0 ? kShareModeEmpty : kShareModePrivate;
    return !hasStorage && !hasOwnPages(entry) ? kShareModeShared : kShareModeCopyOnWrite;
}

/// Resident KiB charged to the process. The pages of vdso and vvar belong to the kernel and are the same in
/// every process. A process has own pages there only if a debugger has written to them.
std::uint64_t residentOf(const SmapsEntry& entry, const RegionKind& kind) {
    const bool isKernels = kind.tag == Tag::kVdso || kind.tag == Tag::kVvar || kind.tag == Tag::kVsyscall;
    // "Rss" does not include huge pages.
    return isKernels ? entry.anonymous : entry.resident + entry.hugetlb();
}

FileUse fileUseOf(const RegionKind& kind, FileSystems::Kind fileSystem) {
    const bool mayBeImage = kind.tag == Tag::kNone || kind.tag == Tag::kTmpfs || kind.tag == Tag::kMemfd ||
                            kind.tag == Tag::kPosixShared;
    if (!mayBeImage) return FileUse::kNone;
    const bool mayHang =
        fileSystem == FileSystems::Kind::kRemote || fileSystem == FileSystems::Kind::kUnknown;
    return mayHang ? FileUse::kLookOnly : FileUse::kMayBeRead;
}

RegionInfoRecord recordOf(const SmapsEntry& entry, const RegionKind& kind) {
    RegionInfoRecord record;
    record.protection = entry.permissions;
    record.max_protection = static_cast<std::int32_t>(
        entry.flags & (SmapsEntry::kMayRead | SmapsEntry::kMayWrite | SmapsEntry::kMayExecute));
    record.offset = mapsFile(entry) ? entry.offset : entry.start;
    record.user_tag = static_cast<std::uint32_t>(kind.tag);
    record.pages_resident = pagesOf(residentOf(entry, kind));
    record.pages_dirtied = pagesOf(entry.sharedDirty + entry.privateDirty + entry.hugetlb());
    record.pages_swapped_out = pagesOf(entry.swap);
    record.pages_reusable = pagesOf(entry.lazyFree);
    const bool isWired = (entry.flags & (SmapsEntry::kLocked | SmapsEntry::kHugePages)) != 0;
    record.user_wired_count = isWired ? record.pages_resident : 0;
    record.external_pager = kind.hasStorage ? 1 : 0;
    record.share_mode = shareModeOf(entry, kind.hasStorage);
    return record;
}

}  // namespace

TaskSnapshot::TaskSnapshot(int processDirectory, FileSystems& fileSystems, ElfFiles& elfFiles,
                           ObjectIds& objectIds)
    : _fileSystems(fileSystems), _objectIds(objectIds) {
    _readRegions(processDirectory);
    _findImages(elfFiles, processDirectory);
    // The snapshot is kept until all tasks are read, so free what is no longer needed.
    _regions.shrink_to_fit();
    _thread = FileDescriptor();
}

void TaskSnapshot::_readRegions(int processDirectory) {
    for (int reading = 0; reading < kMostReadings; ++reading) {
        std::vector<SnapshotRegion> before = std::move(_regions);
        _regions.clear();
        _regions.reserve(kUsualRegions);
        anyTask(processDirectory, [&](const std::string& place) {
            _codeAtEnd = _read(processDirectory, (place + "smaps").c_str());
            if (_codeAtEnd == kMachSendInvalidDest && _regions.empty()) return false;
            if (!place.empty()) _thread = openDirectory(place.c_str(), processDirectory);
            return true;
        });
        if (_codeAtEnd != kMachSendInvalidDest) break;
        if (_regions.empty()) {  // The process has exited: keep what the last reading found.
            _regions = std::move(before);
            break;
        }
    }
    findAnonymousKinds(_regions);
}

KernReturn TaskSnapshot::_read(int processDirectory, const char* path) {
    const FileDescriptor smaps = openForReading(path, processDirectory);
    if (!smaps.isOpen())
        return errno == ENOENT || errno == ESRCH ? kMachSendInvalidDest : kernReturnFromErrno(errno);
    // One for each worker thread, reused for all its processes.
    thread_local const auto buffer = std::make_unique_for_overwrite<char[]>(kBufferSize);
    const auto addEntry = [&](const SmapsEntry& entry) { _addEntry(entry, processDirectory); };
    std::size_t filled = 0;
    for (;;) {
        const std::ptrdiff_t count = readSome(smaps.get(), buffer.get() + filled, kBufferSize - filled);
        if (count < 0 && errno != ESRCH) return kernReturnFromErrno(errno);
        const bool atEnd = count <= 0;
        if (!atEnd) filled += static_cast<std::size_t>(count);
        // The kernel returns less than a page for each read. Collect more before parsing.
        if (!atEnd && filled < kBufferSize / 2) continue;
        const std::size_t consumed = parseSmaps({buffer.get(), filled}, atEnd, addEntry);
        if (atEnd) break;
        std::memmove(buffer.get(), buffer.get() + consumed, filled - consumed);
        filled -= consumed;
        if (filled == kBufferSize) filled = 0;  // No entry is that large.
    }
    return isAlive(smaps.get()) ? kKernInvalidAddress : kMachSendInvalidDest;
}

void TaskSnapshot::_addEntry(const SmapsEntry& entry, int processDirectory) {
    // The kernel prints a few entries at a time. If an entry has meanwhile grown or merged with entries read
    // before, it includes their pages.
    while (!_regions.empty() && _regions.back().end > entry.start) _regions.pop_back();

    const bool isFile = mapsFile(entry);
    if (isFile) _lookAtFile(entry, processDirectory);
    const RegionKind kind = kindOfEntry(entry, _file.fileSystem);
    SnapshotRegion& region = _regions.emplace_back();
    region.start = entry.start;
    region.end = entry.end;
    region.record = recordOf(entry, kind);
    region.fileId = isFile && _objectIds.tellsFile(_file.identity) ? _file.objectId : 0;
    // Pages that were copied for this region are no longer the file's.
    const bool isFileItself = region.fileId != 0 && !hasOwnPages(entry);
    region.record.object_id = isFileItself ? region.fileId : _objectIds.newId();
    region.isPlainAnonymous = entry.path.empty() && !entry.isShared && kind.tag == Tag::kNone;
    region.isPrivate = !entry.isShared;
    region.isHuge = kind.tag == Tag::kHugePages;
    region.isWritten = !entry.isShared && ((entry.permissions & SmapsEntry::kWrite) != 0 ||
                                           (entry.flags & SmapsEntry::kAccounted) != 0);
    if (!isFile) return;
    region.path = _file.path;
    region.device = entry.device;
    region.inode = entry.inode;
    if (region.fileId != 0) region.fileUse = fileUseOf(kind, _file.fileSystem);
}

void TaskSnapshot::_lookAtFile(const SmapsEntry& entry, int processDirectory) {
    FileIdentity identity = {entry.device, entry.inode, 0};
    if (entry.path.starts_with("/SYSV")) {
        struct stat ipc {};
        if (fstatat(processDirectory, "ns/ipc", &ipc, 0) == 0) identity.ipcNamespace = ipc.st_ino;
    }
    if (_file.objectId == 0 || identity != _file.identity) {
        _file.identity = identity;
        _file.fileSystem = _kindOfFileSystem(entry, processDirectory);
        _file.objectId = _objectIds.idOfFile(identity);
    }
    if (!_file.path.isPresent() || entry.path != _file.rawPath) {
        _file.rawPath = entry.path;
        _file.path = Name(printable(entry.path, kLongestPath));
    }
}

/// If our own namespace does not mount the file system, looks at the mounts of the process, once.
FileSystems::Kind TaskSnapshot::_kindOfFileSystem(const SmapsEntry& entry, int processDirectory) {
    const FileSystems::Kind kind = _fileSystems.kindOf(entry.device);
    if (kind != FileSystems::Kind::kUnknown || entry.path[0] != '/' || _knowsMounts) return kind;
    _knowsMounts = true;
    _fileSystems.addMountsOf(processDirectory);
    return _fileSystems.kindOf(entry.device);
}

const SnapshotRegion* TaskSnapshot::regionAtOrAfter(std::uint64_t address) const {
    // Walks go upwards, so it is usually the region found last or the next one.
    const auto endsAbove = [&](std::size_t i) { return i < _regions.size() && _regions[i].end > address; };
    const auto isFirst = [&](std::size_t i) {
        return endsAbove(i) && (i == 0 || _regions[i - 1].end <= address);
    };
    if (!isFirst(_lastFound) && !isFirst(++_lastFound)) {
        const auto found = std::upper_bound(
            _regions.begin(), _regions.end(), address,
            [](std::uint64_t value, const SnapshotRegion& region) { return value < region.end; });
        _lastFound = static_cast<std::size_t>(found - _regions.begin());
    }
    return _lastFound < _regions.size() ? &_regions[_lastFound] : nullptr;
}

}  // namespace zorbel
