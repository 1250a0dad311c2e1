#include "linux/heaps/HeapOwners.h"

#include <algorithm>

#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

/// What is proved by contents comes before what only has a layout, and runtimes come before allocators, which
/// they may use as well.
constexpr HeapFinder kFinders[] = {findBlocks, findGoHeap,       findJavaHeap,     findPartitionAllocHeap,
                                   findV8Heap, findJemallocHeap, findMimallocHeap, findTcmallocHeap};

/// Adds what of a piece none of the others has, which are in ascending order and disjoint.
void addRest(HeapPiece piece, std::span<const HeapPiece> others, std::vector<HeapPiece>& pieces) {
    auto other = std::ranges::upper_bound(others, piece.start, {}, &HeapPiece::end);
    for (; other != others.end() && other->start < piece.end; ++other) {
        if (piece.start < other->start) pieces.push_back({piece.start, other->start, piece.tag});
        piece.start = other->end;
    }
    if (piece.start < piece.end) pieces.push_back(piece);
}

}  // namespace

HeapEvidence::HeapEvidence(std::span<const SnapshotRegion> regions, const ElfLayout* program, Read read)
    : _regions(regions), _program(program), _read(std::move(read)) {
    for (const SnapshotRegion& region : regions) {
        if (region.file == nullptr || !region.has(SmapsEntry::kExecute)) continue;
        const std::string_view path = region.file->path.text();
        _files.push_back(path.substr(path.rfind('/') + 1));
    }
}

bool HeapEvidence::runsAny(std::span<const std::string_view> names) const {
    return std::ranges::any_of(names, [this](std::string_view name) { return runs(name); });
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

bool HeapEvidence::runs(std::string_view name) const {
    constexpr std::string_view kMayFollow = "0123456789.-";
    return std::ranges::any_of(_files, [&](std::string_view file) {
        return file.starts_with(name) &&
               (file.size() == name.size() || kMayFollow.find(file[name.size()]) != kMayFollow.npos);
    });
}

bool mayBeHeap(const SnapshotRegion& region) {
    constexpr std::uint64_t kSmallest = 64 << 10;
    const bool isNameless = region.isPlainAnonymous || region.tag == Tag::kSbrk;
    const bool isCode = region.has(SmapsEntry::kExecute);
    // The main heap begins with 132 KiB; only allocators that are larger by themselves take it over.
    const std::uint64_t smallest = region.tag == Tag::kSbrk ? 4 * kSmallest : kSmallest;
    return isNameless && region.protection != 0 && (isCode || region.size() >= smallest);
}

std::vector<HeapPiece> findHeaps(const HeapEvidence& evidence) {
    std::vector<HeapPiece> all;
    std::vector<HeapPiece> found;
    for (const HeapFinder find : kFinders) {
        found.clear();
        find(evidence, found);
        const std::vector<HeapPiece> earlier = all;
        for (const HeapPiece& piece : found) addRest(piece, earlier, all);
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
