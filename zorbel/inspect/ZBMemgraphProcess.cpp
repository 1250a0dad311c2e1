#include "inspect/ZBMemgraphProcess.h"

#include <fcntl.h>

#include <cerrno>
#include <optional>
#include <string_view>
#include <vector>

#include "base/Files.h"

namespace zorbel {

namespace {

constexpr const char* kErrorDomain = "ZorbelErrorDomain";
constexpr int kUnknownFormat = 1;
constexpr int kUnknownPlatform = 2;

/// Bytes, more than any graph has. A device might never end.
constexpr std::size_t kMostContents = std::size_t{1} << 29;

/// Contents of a file. Fails with EFBIG above kMostContents.
Result<std::string> contentsOf(const std::string& path) {
    const FileDescriptor file = openForReading(path.c_str(), AT_FDCWD);
    if (!file.isOpen()) return Error::last();
    std::string contents;
    std::vector<char> piece(1 << 16);
    for (;;) {
        const std::ptrdiff_t count = readSome(file.get(), piece.data(), piece.size());
        if (count < 0) return Error::last();
        if (count == 0) return contents;
        contents.append(piece.data(), static_cast<std::size_t>(count));
        if (contents.size() > kMostContents) return Error::ofErrno(EFBIG);
    }
}

/// The kind of machine in a graph's description; nothing if there is none.
std::optional<ZBPlatform> platformNamedIn(std::string_view description) {
    const auto names = [&](std::string_view name) {
        return description.find(name) != std::string_view::npos;
    };
    if (names("Linux")) return ZBPlatform::kLinux;  // For every processor.
    if (names("X86-64")) return ZBPlatform::kX86_64;
    if (names("X86")) return ZBPlatform::kX86;
    constexpr std::string_view kArm64 = "ARM64";
    if (names(kArm64)) {
        const std::string_view rest = description.substr(description.find(kArm64) + kArm64.size());
        return rest.starts_with("-32") ? ZBPlatform::kARM64_32 : ZBPlatform::kARM64;
    }
    if (names("ARM")) return ZBPlatform::kARM;
    return std::nullopt;
}

}  // namespace

Result<std::unique_ptr<ZBMemgraphProcess>> ZBMemgraphProcess::processWithMemgraph(Platform& platform,
                                                                                  const std::string& path) {
    std::unique_ptr<ZBMemgraphProcess> process(new ZBMemgraphProcess(platform));
    if (const auto opened = process->initWithMemgraph(path); !opened) return opened.error();
    return process;
}

Result<void> ZBMemgraphProcess::initWithMemgraph(const std::string& path) {
    const auto contents = contentsOf(path);
    if (!contents) return contents.error();
    auto graph = _platform.openMemoryGraph(*contents);
    if (!graph && graph.error().domain.empty())
        return Error{kErrorDomain, kUnknownFormat, "memgraph initialization failed with unknown error"};
    if (!graph) return graph.error();
    _graph = *std::move(graph);
    const GraphProcess& saved = _graph->process();
    BsdInfoRecord record;
    if (saved.is64bit) record.pbi_flags = BsdInfoRecord::kFlag64Bit;
    record.pbi_pid = static_cast<std::uint32_t>(saved.pid);
    initWithBsdInfo(record);  // Can't fail: it opens no task.
    _displayString += " (memgraph)";
    if (!_setSharedRegionFromPlatform(
            platformNamedIn(saved.processDescription).value_or(ZBPlatform::kUnknown)))
        return Error{kErrorDomain, kUnknownPlatform,
                     "Unable to determine platform from memory graph process description"};
    _idleExitStatus = ZBIdleExitStatus::kUnknown;
    _anonymousDirtyRecalculation = false;
    return {};
}

std::string ZBMemgraphProcess::_gatherName(const BsdInfoRecord& /*record*/) const {
    return _graph->process().processName;
}

bool ZBMemgraphProcess::breakDownPhysZorbel() const { return _graph->process().breakDownPhysZorbel; }

std::uint32_t ZBMemgraphProcess::_gatherPageSize() const { return _graph->process().vmPageSize; }

void ZBMemgraphProcess::_gatherPhysZorbel() {
    _phys_zorbel = _graph->process().physZorbel;
    _phys_zorbel_peak = _graph->process().physZorbelPeak;
}

SharedPages ZBMemgraphProcess::_pagesOf(const GraphSharedPart& part) const {
    const auto pages = [this](std::uint64_t size) { return size / _pageSize; };
    const auto pages32 = [&](std::uint64_t size) { return static_cast<std::uint32_t>(pages(size)); };
    SharedPages shared;
    shared.object_id = part.object_id;
    shared.pages_resident = pages32(part.resident_size);
    shared.pages_swapped_out = pages32(part.swapped_out_size);
    shared.pages_clean = shared.pages_resident - pages32(part.dirty_size);
    shared.object_pages_resident = pages(part.object_resident_size);
    shared.object_pages_swapped_out = pages(part.object_swapped_out_size);
    shared.object_pages_clean = shared.object_pages_resident - pages(part.object_dirty_size);
    return shared;
}

RegionInfoRecord ZBMemgraphProcess::_recordOf(const GraphRegion& region) {
    // Pieces of the shared region may share pages, so their sizes are counted in bytes.
    const std::uint64_t unit = _isInSharedRegion(region.address) ? 1 : _pageSize;
    const auto count = [unit](std::uint64_t size) { return static_cast<std::uint32_t>(size / unit); };
    RegionInfoRecord record;
    record.protection = region.prot;
    record.max_protection = region.maxProt;
    record.user_tag = region.user_tag;
    record.pages_resident = count(region.resident_size);
    record.pages_shared_now_private = count(region.shared_now_private_size);
    record.pages_swapped_out = count(region.swapped_out_size);
    record.pages_dirtied = count(region.dirty_size);
    record.ref_count = region.ref_count;
    record.external_pager = region.external_pager;
    record.share_mode = region.share_mode;
    record.is_submap = region.is_submap;
    record.object_id = region.object_id;
    _shared.clear();
    for (const GraphSharedPart& part : region.shared) _shared.push_back(_pagesOf(part));
    record.shared = _shared;
    return record;
}

void ZBMemgraphProcess::enumerateRegions(const RegionVisitor& visitor) {
    std::optional<ZBImage> pending;
    _graph->enumerateRegions([&](const GraphRegion& region, bool& stop) {
        if (!pending) pending.emplace();
        pending->setName(region.type);
        if (pending->segment() != SegmentCode::kUnspecified) {
            pending->setStart(region.address);
            pending->setSize(region.length);
            pending->setOwnerPath(region.path);
            _images.push_back(*pending);
            pending.reset();
        }
        stop = visitor(region.address, region.length, _recordOf(region), region.purgeable,
                       region.external_pager != 0 ? region.path : Name());
    });
}

bool ZBMemgraphProcess::_populateMemoryRegionWithPageQueries(ZBMemoryRegion& piece,
                                                             const RegionInfoRecord& record) {
    ZB_ASSERT(piece.dirtySize() == 0, "memoryRegion.dirtySize == 0");
    ZB_ASSERT(piece.swappedSize() == 0, "memoryRegion.swappedSize == 0");
    piece.setDirtySize(record.pages_dirtied);
    piece.setSwappedSize(record.pages_swapped_out);
    return true;
}

}  // namespace zorbel
