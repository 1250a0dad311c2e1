#include "linux/TaskSnapshot.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/Files.h"
#include "base/Utf8.h"
#include "linux/heaps/HeapOwners.h"
#include "linux/kinds/RegionKinds.h"
#include "linux/kinds/Stacks.h"
#include "linux/pages/ResidentMemory.h"
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

/// Whether the address space that maps or smaps was opened for still exists. If not, reading returns nothing.
bool isAlive(int maps) {
    char byte = 0;
    return pread(maps, &byte, 1, 0) == 1;
}

FileUse fileUseOf(const RegionKind& kind, FileSystems::Kind fileSystem) {
    const bool mayBeImage = kind.tag == Tag::kNone || kind.tag == Tag::kTmpfs || kind.tag == Tag::kMemfd ||
                            kind.tag == Tag::kPosixShared;
    if (!mayBeImage) return FileUse::kNone;
    const bool mayHang =
        fileSystem == FileSystems::Kind::kRemote || fileSystem == FileSystems::Kind::kUnknown;
    return mayHang ? FileUse::kLookOnly : FileUse::kMayBeRead;
}

/// What smaps says about the pages of a region; nothing of that is in maps.
RegionPages pagesOf(const SmapsEntry& entry, bool hasStorage) {
    RegionPages pages;
    // "Rss" has no huge pages.
    pages.anonymous = pagesOfKibibytes(entry.anonymous + (entry.isShared ? 0 : entry.hugetlb()));
    pages.file = pagesOfKibibytes(entry.resident - std::min(entry.anonymous, entry.resident) +
                                  (entry.isShared ? entry.hugetlb() : 0));
    // "Swap" counts the pages of a file in memory as well. What a private mapping has of its own is most
    // likely all of it if it is writable, and nothing otherwise; _tellOwnSwap() looks closer.
    const bool isOfFile =
        entry.isShared || (mapsFile(entry) && !hasStorage && (entry.permissions & SmapsEntry::kWrite) == 0);
    (isOfFile ? pages.fileSwapped : pages.swapped) = pagesOfKibibytes(entry.swap);
    const std::uint64_t dirty = entry.sharedDirty + entry.privateDirty;
    pages.fileDirty = pagesOfKibibytes(dirty - std::min(entry.isShared ? 0 : entry.anonymous, dirty));
    pages.lazy = pagesOfKibibytes(entry.lazyFree);
    return pages;
}

}  // namespace

TaskSnapshot::TaskSnapshot(int processDirectory, const SnapshotServices& services, const ReadingPlan& plan)
    : _services(services) {
    _readRegions(processDirectory, plan);
    const int memoryDirectory = _directoryOfMemory(processDirectory);
    if (!_tables) _tables.emplace(memoryDirectory, _services.pageAccess);
    if (_isFromSmaps) {
        _tellOwnSwap();
        _seePagesOfFiles();
    }
    const bool knowsFiles = _noteFiles(memoryDirectory);
    if (!_isFromSmaps && (!knowsFiles || plan.smapsUse == SmapsUse::kAlways ||
                          (plan.smapsUse == SmapsUse::kForLazyPages && _mayHaveLazyPages())))
        _readDetails(memoryDirectory);
    _identifyByFrames();
    for (SnapshotRegion& region : _regions) region.isWritten = region.isWritten || region.hasOwnPages();
    _findImages(processDirectory);
    _nameAnonymousMemory(processDirectory, plan);
    _recountSplitRegions(plan);
    _notePages(plan.lineageUse);
    _distributeLazyPages();
    _markDevices();
    for (SnapshotRegion& region : _regions)
        region.pages.lazy = std::min(region.pages.lazy, region.pages.anonymous);
    // The snapshot is kept until all tasks are read, so free what is no longer needed.
    _regions.shrink_to_fit();
    _splitRegions = {};
    _thread = FileDescriptor();
    _tables.reset();
    _seen = {};
}

// Regions are split first, at all places that anything asks for.
void TaskSnapshot::_nameAnonymousMemory(int processDirectory, const ReadingPlan& plan) {
    ResidentMemory memory(_directoryOfMemory(processDirectory), *_tables);
    const auto read = [&](std::uint64_t address, std::span<std::byte> buffer) {
        return memory.read(address, buffer);
    };
    std::vector<HeapPiece> heaps;
    if (std::ranges::any_of(_regions, mayBeHeap))
        heaps = findHeaps(HeapEvidence(_regions, _images.program(), read));
    ThreadStacks stacks;
    std::vector<std::uint64_t> stackStarts;
    if (plan.threads > 1 && std::ranges::any_of(_regions, mayHoldStacks)) {
        stacks = stacksOfThreads(processDirectory);
        stackStarts = placesToSplit(
            _regions, stacks,
            [this](const SnapshotRegion& region, const auto& visit) { _forEachGuard(region, visit); });
    }
    std::vector<std::uint64_t> cuts = stackStarts;
    for (const HeapPiece& piece : heaps)
        for (const std::uint64_t end : {piece.start, piece.end}) {
            const SnapshotRegion* region = regionAtOrAfter(end);
            if (region != nullptr && region->start < end && region->isPlainAnonymous) cuts.push_back(end);
        }
    if (!cuts.empty()) _split(std::move(cuts));
    nameHeaps(_regions, heaps);
    findStacks(_regions, stacks, stackStarts, [&](const SnapshotRegion& region) -> std::optional<bool> {
        std::array<std::uint64_t, 512> top;
        if (region.size() < sizeof top) return false;
        const std::uint64_t start = region.end - sizeof top;
        if (!memory.read(start, std::as_writable_bytes(std::span(top)))) return std::nullopt;
        return holdsDescriptor(start, top);
    });
    findAnonymousKinds(_regions, [&](std::uint64_t address) {
        std::array<std::byte, 1> first;
        return memory.read(address, first);
    });
}

void TaskSnapshot::_readRegions(int processDirectory, const ReadingPlan& plan) {
    for (int reading = 0; reading < kMostReadings; ++reading) {
        std::vector<SnapshotRegion> before = std::move(_regions);
        _regions.clear();
        _regions.reserve(kUsualRegions);
        anyTask(processDirectory, [&](const std::string& place) {
            _codeAtEnd = _read(processDirectory, place, plan);
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
}

KernReturn TaskSnapshot::_read(int processDirectory, const std::string& place, const ReadingPlan& plan) {
    const auto open = [&](const char* name) {
        return openForReading((place + name).c_str(), processDirectory);
    };
    const FileDescriptor thread =
        place.empty() ? FileDescriptor() : openDirectory(place.c_str(), processDirectory);
    const int directory = thread.isOpen() ? thread.get() : processDirectory;
    FileDescriptor maps = open(_services.pageAccess.mayScan ? "maps" : "smaps");
    _isFromSmaps = !_services.pageAccess.mayScan;
    int tablesError = 0;
    if (maps.isOpen() && !_isFromSmaps) {
        _tables.emplace(directory, _services.pageAccess);
        tablesError = _tables->isOpen() ? 0 : errno;
        // Who may trace a process may read these texts, but pagemap is for its user and root.
        _isFromSmaps = tablesError == EACCES || tablesError == EPERM;
        if (_isFromSmaps) maps = open("smaps");
    }
    if (!maps.isOpen())
        return errno == ENOENT || errno == ESRCH ? kMachSendInvalidDest : kernReturnFromErrno(errno);
    // One for each worker thread, reused for all its processes.
    thread_local const auto buffer = std::make_unique_for_overwrite<char[]>(kBufferSize);
    const auto addEntry = [&](const SmapsEntry& entry) { _addEntry(entry, directory); };
    std::size_t filled = 0;
    for (;;) {
        const std::ptrdiff_t count = readSome(maps.get(), buffer.get() + filled, kBufferSize - filled);
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
    if (!_isFromSmaps) {
        const int error = tablesError == 0 ? _countAllPages(plan) : tablesError;
        if (error != 0 && error != ESRCH && error != ENOENT) return kernReturnFromErrno(error);
    }
    // Asked at the end: page tables that are gone count nothing.
    return isAlive(maps.get()) ? kKernInvalidAddress : kMachSendInvalidDest;
}

void TaskSnapshot::_addEntry(const SmapsEntry& entry, int processDirectory) {
    // The kernel prints a few entries at a time. If an entry has meanwhile grown or merged with entries read
    // before, it includes their pages.
    while (!_regions.empty() && _regions.back().end > entry.start) _regions.pop_back();

    const bool isFile = mapsFile(entry);
    if (isFile) _lookAtFile(entry, processDirectory);
    const RegionKind kind = kindOfEntry(entry, _file.fileSystem, _file.isBlockDevice);
    SnapshotRegion& region = _regions.emplace_back();
    region.start = entry.start;
    region.end = entry.end;
    region.protection = static_cast<std::uint8_t>(entry.permissions);
    region.maxProtection = static_cast<std::uint8_t>(
        entry.flags & (SmapsEntry::kMayRead | SmapsEntry::kMayWrite | SmapsEntry::kMayExecute));
    if (region.maxProtection == 0) region.maxProtection = region.protection;
    region.offset = isFile ? entry.offset : entry.start;
    region.tag = kind.tag;
    region.hasStorage = kind.hasStorage;
    region.file = isFile ? _file.mapped : nullptr;
    region.isPlainAnonymous = entry.path.empty() && !entry.isShared && kind.tag == Tag::kNone;
    region.isPrivate = !entry.isShared;
    region.isHuge = kind.tag == Tag::kHugePages;
    region.isLocked = (entry.flags & SmapsEntry::kLocked) != 0;
    region.isWritten = !entry.isShared && ((entry.permissions & SmapsEntry::kWrite) != 0 ||
                                           (entry.flags & SmapsEntry::kAccounted) != 0);
    region.pages = pagesOf(entry, kind.hasStorage);
    if (region.fileId() != 0) region.fileUse = fileUseOf(kind, _file.fileSystem);
}

void TaskSnapshot::_lookAtFile(const SmapsEntry& entry, int processDirectory) {
    if (_file.mapped != nullptr && entry.device == _file.device && entry.inode == _file.inode &&
        entry.path == _file.rawPath)
        return;
    _identified.directory = processDirectory;
    const FileIdentifier::Found found = _services.fileIdentifier.identify(entry, _identified);
    MappedFile& mapped = _files->emplace_front();
    mapped.path = Name(printable(entry.path, kLongestPath));
    mapped.device = found.device;
    mapped.inode = found.inode;
    mapped.isLayered = found.isLayered;
    mapped.layerFile = found.layerFile;
    if (_services.objectIds.tellsFile(found.identity))
        mapped.number = _services.objectIds.numberOfFile(found.identity);
    _file.device = entry.device;
    _file.inode = entry.inode;
    _file.rawPath = entry.path;
    _file.fileSystem = found.fileSystem;
    _file.isBlockDevice = found.isBlockDevice;
    _file.mapped = &mapped;
}

void TaskSnapshot::takeRegionsOf(const TaskSnapshot& other) {
    _regions = other._regions;
    _files = other._files;
    for (SnapshotRegion& region : _regions)
        if (!region.shared.empty()) region.shared = keep(region.shared);
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
