#include "inspect/ZBMemgraphProcess.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

namespace zorbel {

namespace {

constexpr const char* kErrorDomain = "ZorbelErrorDomain";
constexpr int kUnknownFormat = 1;
constexpr int kUnknownPlatform = 2;

/// More than any graph has, in bytes; a device may never end.
constexpr std::size_t kMostContents = std::size_t{1} << 29;

/// The whole of a file; on failure, and for what is too large, nothing and why.
std::optional<std::string> contentsOf(const std::string& path, PlatformError& error) {
    std::string contents;
    int code = 0;
    if (std::FILE* file = std::fopen(path.c_str(), "re")) {
        std::vector<char> piece(1 << 16);
        while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), file)) {
            contents.append(piece.data(), count);
            if (contents.size() > kMostContents) break;
        }
        if (std::ferror(file) != 0) code = errno;
        std::fclose(file);
        if (contents.size() > kMostContents) code = EFBIG;
    } else {
        code = errno;
    }
    if (code == 0) return contents;
    error = {"POSIXErrorDomain", code, std::strerror(code)};
    return std::nullopt;
}

/// The kind of machine that a graph's description names; nothing where it names none.
std::optional<ZBPlatform> platformNamedIn(std::string_view description) {
    const auto names = [&](std::string_view name) {
        return description.find(name) != std::string_view::npos;
    };
    if (names("Linux")) return ZBPlatform::kLinux;  // Whatever processor it runs on.
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

std::unique_ptr<ZBMemgraphProcess> ZBMemgraphProcess::processWithMemgraph(Platform& platform,
                                                                          const std::string& path,
                                                                          PlatformError& error) {
    std::unique_ptr<ZBMemgraphProcess> process(new ZBMemgraphProcess(platform));
    if (!process->initWithMemgraph(path, error)) return nullptr;
    return process;
}

bool ZBMemgraphProcess::initWithMemgraph(const std::string& path, PlatformError& error) {
    const auto contents = contentsOf(path, error);
    if (!contents) return false;
    error = {};
    _graph = _platform.openMemoryGraph(*contents, error);
    if (!_graph) {
        if (error.domain.empty())
            error = {kErrorDomain, kUnknownFormat, "memgraph initialization failed with unknown error"};
        return false;
    }
    const GraphProcess& saved = _graph->process();
    BsdInfoRecord record;
    if (saved.is64bit) record.pbi_flags = BsdInfoRecord::kFlag64Bit;
    record.pbi_pid = static_cast<std::uint32_t>(saved.pid);
    if (!initWithBsdInfo(record)) return false;
    _name = saved.processName;
    _displayString = _name + " [" + std::to_string(_pid) + "] (memgraph)";
    if (!_setSharedRegionFromPlatform(
            platformNamedIn(saved.processDescription).value_or(ZBPlatform::kUnknown))) {
        error = {kErrorDomain, kUnknownPlatform,
                 "Unable to determine platform from memory graph process description"};
        return false;
    }
    _idleExitStatus = ZBIdleExitStatus::kUnknown;
    _anonymousDirtyRecalculation = false;
    return true;
}

bool ZBMemgraphProcess::breakDownPhysZorbel() const { return _graph->process().breakDownPhysZorbel; }

std::uint32_t ZBMemgraphProcess::_gatherPageSize() const { return _graph->process().vmPageSize; }

void ZBMemgraphProcess::_gatherPhysZorbel() {
    _phys_zorbel = _graph->process().physZorbel;
    _phys_zorbel_peak = _graph->process().physZorbelPeak;
}

RegionInfoRecord ZBMemgraphProcess::_recordOf(const GraphRegion& region) const {
    // Pieces of the shared region share pages.
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
