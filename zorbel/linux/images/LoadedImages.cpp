#include "linux/images/LoadedImages.h"

#include <algorithm>
#include <optional>

#include "linux/process/PageSize.h"
#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

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

std::uint64_t pageStart(std::uint64_t address) { return address & ~(pageSize() - 1); }
std::uint64_t pageEnd(std::uint64_t address) { return pageStart(address + pageSize() - 1); }

bool isExecutable(const SnapshotRegion& region) { return region.has(SmapsEntry::kExecute); }

/// Whether the region shows that its file is loaded as code. Some programs map ELF files only to read them.
bool isLoaded(const SnapshotRegion& region) {
    return region.fileUse != FileUse::kNone && region.isPrivate && (isExecutable(region) || region.isWritten);
}

/// Segment name of a file's region, by its protection and offset alone.
Name nameByAccess(const SnapshotRegion& region) {
    if (isExecutable(region)) return names().text;
    if (region.has(SmapsEntry::kWrite)) return names().data;
    if (region.isWritten) return names().constantData;
    return region.offset == 0 ? names().linkedit : names().text;
}

/// The segment that contains the region's first byte; null if the headers do not match the mapping.
const ElfSegment* segmentOf(const SnapshotRegion& region, const ElfLayout& layout) {
    for (const ElfSegment& segment : layout.segments) {
        const bool isAlike = isExecutable(region) ? segment.isExecutable : segment.isWritable;
        const std::uint64_t offset = region.offset;
        if (isAlike && pageStart(segment.offset) <= offset && offset < segment.offset + segment.fileSize)
            return &segment;
    }
    return nullptr;
}

}  // namespace

class LoadedImages::Finder {
  public:
    Finder(std::span<const SnapshotRegion> regions, LoadedImages& images)
        : _regions(regions), _images(images) {}

    void find(ElfFiles& files, int processDirectory) {
        for (std::size_t i = 0; i < _regions.size(); ++i) {
            const SnapshotRegion& region = _regions[i];
            if (!isLoaded(region)) continue;
            FoundFile& file = _found[region.fileId()];
            if (region.start < file.end) continue;
            if (!file.answer) file.answer = files.answerFor(region, processDirectory);
            if (file.answer->kind == ElfFiles::Kind::kElf && _found.size() == 1)
                _images._program = file.answer->layout;
            if (file.answer->kind == ElfFiles::Kind::kElf)
                file.end = std::max(file.end, _addByHeaders(region, *file.answer->layout, file.end));
            if (file.answer->kind == ElfFiles::Kind::kUnreadable && isExecutable(region))
                file.end = _addByRegions(i);
        }
    }

  private:
    struct FoundFile {
        std::optional<ElfFiles::Answer> answer;
        std::uint64_t end = 0;  ///< End of the image of this file that was found last.
    };

    /// Adds the parts of segments that are mapped as the headers say, and that lie above knownEnd. Returns
    /// the end of the last one, 0 if there is none.
    std::uint64_t _addByHeaders(const SnapshotRegion& region, const ElfLayout& layout,
                                std::uint64_t knownEnd) {
        const ElfSegment* anchor = segmentOf(region, layout);
        if (anchor == nullptr) return 0;
        const std::uint64_t slide =
            region.start - pageStart(anchor->address) - (region.offset - pageStart(anchor->offset));
        std::uint64_t end = 0;
        bool isWhole = false;  // Whether the last page of the segment before is mapped.
        for (const ElfSegment& segment : layout.segments) {
            // A segment may start in the page where the previous one ends.
            const std::uint64_t start = std::max(slide + pageStart(segment.address), end);
            const std::uint64_t segmentEnd = slide + pageEnd(segment.end());
            if (start < knownEnd || segmentEnd <= start) continue;
            const auto add = [&](std::uint64_t partStart, std::uint64_t partEnd) {
                _addSegment(segment, layout, slide, partStart, partEnd);
                end = partEnd;
            };
            // Behind what is in the file, zeroed data begins with a page of its own.
            std::uint64_t zeroedStart = start;
            bool mayBeZeroed = isWhole && &segment == &layout.segments.back();
            if (segment.fileSize != 0) {
                const std::uint64_t address = slide + pageStart(segment.address);
                if (!_isMapped(segment, address, region.fileId())) continue;
                zeroedStart = std::max(slide + pageEnd(segment.address + segment.fileSize), start);
                const std::uint64_t origin = pageStart(segment.offset) - address;
                _forEachPartOfFile(start, zeroedStart, region.fileId(), origin, add);
                isWhole = end == zeroedStart;
                mayBeZeroed = isWhole && segment.isWritable;
            }
            const std::uint64_t zeroedEnd = mayBeZeroed ? _endOfZeroed(zeroedStart, segmentEnd) : zeroedStart;
            if (zeroedEnd > zeroedStart) add(zeroedStart, zeroedEnd);
        }
        if (end != 0) _images._owners.push_back({region.file->path, _images._segments.size()});
        return end;
    }

    using RegionIterator = std::span<const SnapshotRegion>::iterator;

    /// The first region that ends above the address.
    [[nodiscard]] RegionIterator _regionAtOrAfter(std::uint64_t address) const {
        return std::upper_bound(
            _regions.begin(), _regions.end(), address,
            [](std::uint64_t value, const SnapshotRegion& region) { return value < region.end; });
    }

    /// Whether the segment's first page is mapped where the headers say.
    [[nodiscard]] bool _isMapped(const ElfSegment& segment, std::uint64_t address,
                                 std::uint32_t fileId) const {
        const auto found = _regionAtOrAfter(address);
        return found != _regions.end() && found->start <= address && found->fileId() == fileId &&
               found->offset + (address - found->start) == pageStart(segment.offset);
    }

    /// Calls consume with the parts of an address range that map the file as one mapping of it would, with
    /// this distance from addresses to offsets; a process may have mapped anything between them. Ends at the
    /// next mapping of the file that is another one: each region is looked at for one image only.
    template <typename Consume>
    void _forEachPartOfFile(std::uint64_t start, std::uint64_t end, std::uint32_t fileId,
                            std::uint64_t origin, const Consume& consume) const {
        std::uint64_t partStart = start;
        std::uint64_t partEnd = start;
        for (auto found = _regionAtOrAfter(start); found != _regions.end() && found->start < end; ++found) {
            if (found->fileId() != fileId) continue;
            if (found->offset - found->start != origin) break;
            const std::uint64_t first = std::max(found->start, start);
            if (first != partEnd) {
                if (partEnd > partStart) consume(partStart, partEnd);
                partStart = first;
            }
            partEnd = std::min(found->end, end);
        }
        if (partEnd > partStart) consume(partStart, partEnd);
    }

    /// Where the anonymous memory that begins at the address ends, at most.
    [[nodiscard]] std::uint64_t _endOfZeroed(std::uint64_t start, std::uint64_t end) const {
        std::uint64_t zeroedEnd = start;
        for (auto found = _regionAtOrAfter(start); found != _regions.end() && zeroedEnd < end; ++found) {
            if (found->start > zeroedEnd || !found->isPrivate || found->file != nullptr) break;
            zeroedEnd = std::min(found->end, end);
        }
        return zeroedEnd;
    }

    void _addSegment(const ElfSegment& segment, const ElfLayout& layout, std::uint64_t slide,
                     std::uint64_t start, std::uint64_t end) {
        const auto addUpTo = [&](std::uint64_t partEnd, Name name) {
            if (partEnd > start) _images._segments.push_back({start, partEnd - start, name});
            start = std::max(start, partEnd);
        };
        if (!segment.isWritable) {
            const bool isLinkedit = segment.offset == 0 && !segment.isExecutable;
            return addUpTo(end, isLinkedit ? names().linkedit : names().text);
        }
        // The loader can only protect whole pages.
        const std::uint64_t relroStart = slide + pageStart(layout.relroStart);
        const std::uint64_t relroEnd = slide + pageStart(layout.relroEnd);
        if (relroStart < end && relroEnd > start) {
            addUpTo(relroStart, names().data);
            addUpTo(std::min(relroEnd, end), names().constantData);
        }
        addUpTo(end, names().data);
    }

    /// Takes the neighbouring regions of the same file as segments. Returns the end of the last one.
    std::uint64_t _addByRegions(std::size_t executable) {
        const std::uint32_t file = _regions[executable].fileId();
        const auto isSameFile = [&](std::size_t i) {
            return _regions[i].fileUse != FileUse::kNone && _regions[i].fileId() == file;
        };
        std::size_t first = executable;
        while (first > 0 && isSameFile(first - 1)) --first;
        std::uint64_t end = 0;
        for (std::size_t i = first; i < _regions.size() && isSameFile(i); ++i) {
            end = _regions[i].end;
            if (_regions[i].protection == 0) continue;
            _images._segments.push_back({_regions[i].start, _regions[i].size(), nameByAccess(_regions[i])});
        }
        _images._owners.push_back({_regions[executable].file->path, _images._segments.size()});
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
