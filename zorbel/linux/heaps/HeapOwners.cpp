#include "linux/heaps/HeapOwners.h"

#include <algorithm>

#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

/// Runtimes come before allocators, which they may use as well.
constexpr HeapFinder kFinders[] = {findGoHeap,       findJavaHeap,     findPartitionAllocHeap, findV8Heap,
                                   findJemallocHeap, findMimallocHeap, findTcmallocHeap,       findBlocks};

}  // namespace

HeapEvidence::HeapEvidence(std::span<const SnapshotRegion> regions, const ElfLayout* program, Read read)
    : _regions(regions), _program(program), _read(std::move(read)) {
    for (const SnapshotRegion& region : regions) {
        if (region.file == nullptr || !region.has(SmapsEntry::kExecute)) continue;
        const std::string_view path = region.file->path.text();
        _files.push_back(path.substr(path.rfind('/') + 1));
    }
}

bool HeapEvidence::runsAny(std::span<const std::string_view> nameStarts) const {
    return std::ranges::any_of(nameStarts, [this](std::string_view start) { return runs(start); });
}

std::vector<HeapEvidence::Stretch> HeapEvidence::stretches() const {
    std::vector<Stretch> found;
    for (std::size_t i = 0; i < _regions.size();) {
        std::size_t last = i + 1;
        if (_regions[i].isPlainAnonymous) {
            while (last < _regions.size() && _regions[last].isPlainAnonymous &&
                   _regions[last].start == _regions[last - 1].end)
                ++last;
            found.push_back({_regions.subspan(i, last - i)});
        }
        i = last;
    }
    return found;
}

bool HeapEvidence::runs(std::string_view nameStart) const {
    return std::ranges::any_of(_files, [&](std::string_view file) { return file.starts_with(nameStart); });
}

std::vector<HeapPiece> findHeaps(const HeapEvidence& evidence) {
    std::vector<HeapPiece> all;
    std::vector<HeapPiece> found;
    for (const HeapFinder find : kFinders) {
        found.clear();
        find(evidence, found);
        const std::size_t before = all.size();
        for (const HeapPiece& piece : found) {
            const auto earlier = std::span(all).first(before);
            const auto next = std::ranges::upper_bound(earlier, piece.start, {}, &HeapPiece::end);
            if (next == earlier.end() || next->start >= piece.end) all.push_back(piece);
        }
        std::ranges::sort(all, {}, &HeapPiece::start);
    }
    return all;
}

void nameHeaps(std::span<SnapshotRegion> regions, std::span<const HeapPiece> pieces) {
    auto piece = pieces.begin();
    for (SnapshotRegion& region : regions) {
        while (piece != pieces.end() && piece->end <= region.start) ++piece;
        if (piece == pieces.end()) return;
        const bool isWithin = piece->start <= region.start && region.end <= piece->end;
        const bool isNameless = region.isPlainAnonymous || region.tag == Tag::kSbrk;
        if (isWithin && isNameless && region.protection != 0) region.tag = piece->tag;
    }
}

}  // namespace zorbel
