#include "inspect/linux/LoadedImages.h"

#include <unistd.h>

#include <algorithm>
#include <optional>

namespace zorbel {

namespace {

constexpr std::int32_t kWrite = 2;
constexpr std::int32_t kExecute = 4;

struct SegmentNames {
    Name text{"__TEXT"};
    Name data{"__DATA"};
    Name constantData{"__DATA_CONST"};
    Name linkedit{"__LINKEDIT"};
};

const SegmentNames& names() {
    static const SegmentNames kNames;
    return kNames;
}

std::uint64_t pageStart(std::uint64_t address) {
    static const auto kPageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return address & ~(kPageSize - 1);
}
std::uint64_t pageEnd(std::uint64_t address) { return pageStart(address + (pageStart(~0ULL) ^ ~0ULL)); }

bool isExecutable(const SnapshotRegion& region) { return (region.record.protection & kExecute) != 0; }

/// Whether the region shows that its file is run, not only read. Programs map ELF files to read them, too.
bool isLoaded(const SnapshotRegion& region) {
    return region.fileUse != FileUse::kNone && region.isPrivate && (isExecutable(region) || region.isWritten);
}

/// Name of a file's region that is told by the region alone.
Name nameByAccess(const SnapshotRegion& region) {
    if (isExecutable(region)) return names().text;
    if ((region.record.protection & kWrite) != 0) return names().data;
    if (region.isWritten) return names().constantData;
    return region.record.offset == 0 ? names().linkedit : names().text;
}

/// The segment that the region maps the first part of; null when the file is not loaded there as its headers
/// say.
const ElfSegment* segmentOf(const SnapshotRegion& region, const ElfLayout& layout) {
    for (const ElfSegment& segment : layout.segments) {
        const bool isAlike = isExecutable(region) ? segment.isExecutable : segment.isWritable;
        const std::uint64_t offset = region.record.offset;
        if (isAlike && pageStart(segment.offset) <= offset && offset < segment.offset + segment.fileSize)
            return &segment;
    }
    return nullptr;
}

}  // namespace

/// One search through the regions of a process.
class LoadedImages::Finder {
  public:
    Finder(std::span<const SnapshotRegion> regions, LoadedImages& images)
        : _regions(regions), _images(images) {}

    void find(ElfFiles& files, int processDirectory) {
        for (std::size_t i = 0; i < _regions.size(); ++i) {
            const SnapshotRegion& region = _regions[i];
            if (!isLoaded(region)) continue;
            FoundFile& file = _found[region.fileId];
            if (region.start < file.end) continue;
            if (!file.answer) file.answer = files.answerFor(region, processDirectory);
            if (file.answer->kind == ElfFiles::Kind::kElf)
                file.end = std::max(file.end, _addByHeaders(region, *file.answer->layout));
            if (file.answer->kind == ElfFiles::Kind::kUnreadable && isExecutable(region))
                file.end = _addByRegions(i);
        }
    }

  private:
    struct FoundFile {
        std::optional<ElfFiles::Answer> answer;
        std::uint64_t end = 0;  ///< Of the file's image that was found last.
    };

    /// Returns the image's end, or 0 when it is none.
    std::uint64_t _addByHeaders(const SnapshotRegion& region, const ElfLayout& layout) {
        const ElfSegment* anchor = segmentOf(region, layout);
        if (anchor == nullptr) return 0;
        const std::uint64_t slide =
            region.start - pageStart(anchor->address) - (region.record.offset - pageStart(anchor->offset));
        // A segment may begin in the page where the one before ends.
        std::uint64_t free = pageStart(layout.segments.front().address);
        const auto addUpTo = [&](std::uint64_t end, Name name) {
            if (end > free) _images._segments.push_back({slide + free, end - free, name});
            free = std::max(free, end);
        };
        for (const ElfSegment& segment : layout.segments) {
            free = std::max(free, pageStart(segment.address));
            const std::uint64_t end = pageEnd(segment.end());
            if (segment.isWritable) {
                // The loader protects whole pages only.
                const std::uint64_t relroStart = pageStart(layout.relroStart);
                const std::uint64_t relroEnd = pageStart(layout.relroEnd);
                const bool hasRelro = relroStart < end && relroEnd > free;
                if (hasRelro) {
                    addUpTo(std::max(relroStart, free), names().data);
                    addUpTo(std::min(relroEnd, end), names().constantData);
                }
                addUpTo(end, names().data);
            } else {
                const bool isLinkedit = segment.offset == 0 && !segment.isExecutable;
                addUpTo(end, isLinkedit ? names().linkedit : names().text);
            }
        }
        _images._owners.push_back({region.path, _images._segments.size()});
        return slide + free;
    }

    /// Takes the neighbouring regions of the same file for its segments. Returns the end of the last one.
    std::uint64_t _addByRegions(std::size_t executable) {
        const std::uint32_t file = _regions[executable].fileId;
        const auto isSameFile = [&](std::size_t i) {
            return _regions[i].fileUse != FileUse::kNone && _regions[i].fileId == file;
        };
        std::size_t first = executable;
        while (first > 0 && isSameFile(first - 1)) --first;
        std::uint64_t end = 0;
        for (std::size_t i = first; i < _regions.size() && isSameFile(i); ++i) {
            end = _regions[i].end;
            if (_regions[i].record.protection == 0) continue;
            _images._segments.push_back({_regions[i].start, _regions[i].size(), nameByAccess(_regions[i])});
        }
        _images._owners.push_back({_regions[executable].path, _images._segments.size()});
        return end;
    }

    std::span<const SnapshotRegion> _regions;
    LoadedImages& _images;
    boost::unordered_flat_map<std::uint32_t, FoundFile> _found;  ///< By file id.
};

LoadedImages LoadedImages::inRegions(std::span<const SnapshotRegion> regions, ElfFiles& files,
                                     int processDirectory) {
    LoadedImages images;
    Finder(regions, images).find(files, processDirectory);
    return images;
}

void LoadedImages::forEachOwner(const std::function<void(const SymbolOwner&)>& consume) const {
    std::size_t first = 0;
    for (const Owner& owner : _owners) {
        consume({owner.path, std::span(_segments).subspan(first, owner.segmentsEnd - first)});
        first = owner.segmentsEnd;
    }
}

}  // namespace zorbel
