// Java, as HotSpot has it.
//
// Evidence: the process runs libjvm.so. HotSpot reserves each of its areas as one mapping without access, and
// makes parts of it accessible as it needs them.
//
// * Heap (memory/virtualspace.cpp): with compressed pointers, which is usual below 32 GiB, it lies below
//   32 GiB, where a program that was linked to be placed anywhere has nothing else. A larger one is the only
//   reservation of that size.
// * Class space (memory/metaspace.cpp): where classes are shared, it follows the archive of shared classes
//   (*.jsa). Its usual size is 1 GiB.
// * Metaspace (memory/metaspace/virtualSpaceNode): reservations of 64 MiB, aligned to 4 MiB, that become
//   accessible in granules of 64 KiB.
// * Code cache: the only memory without a file that can be executed.

#include "linux/heaps/HeapOwners.h"
#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kGiB = 1 << 30;
constexpr std::uint64_t kEndOfCompressed = 32 * kGiB;
constexpr std::uint64_t kClassSpace = kGiB;
constexpr std::uint64_t kMetaspaceNode = 64 * kMiB;
constexpr std::uint64_t kMetaspaceAlignment = 4 * kMiB;
constexpr std::uint64_t kGranule = 64 << 10;

bool isArchive(const SnapshotRegion& region) {
    return region.file != nullptr && region.file->path.text().ends_with(".jsa");
}

/// Whether a node of the metaspace begins at the region: the parts of 64 MiB begin and end at granules.
bool isMetaspaceNode(std::span<const SnapshotRegion> regions) {
    const std::uint64_t start = regions.front().start;
    if (start % kMetaspaceAlignment != 0) return false;
    std::uint64_t end = start;
    for (const SnapshotRegion& region : regions) {
        if (region.start != end || !region.isPlainAnonymous || region.start % kGranule != 0) return false;
        if (region.has(SmapsEntry::kExecute)) return false;
        end = region.end;
        if (end >= start + kMetaspaceNode)
            return regions.front().protection != 0 && end == start + kMetaspaceNode;
    }
    return false;
}

}  // namespace

void findJavaHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    if (!evidence.runs("libjvm.so")) return;
    const std::span<const SnapshotRegion> regions = evidence.regions();
    std::uint64_t archiveEnd = 0;  // Of an archive, and of the class space behind it.
    std::uint64_t classSpaceEnd = 0;
    std::uint64_t pieceEnd = 0;
    const auto add = [&](const HeapPiece& piece) {
        pieces.push_back(piece);
        pieceEnd = piece.end;
    };
    std::uint64_t end = 0;
    bool isInLarge = false;  // Whether it is part of a reservation that only a heap is large enough for.
    for (std::size_t i = 0; i < regions.size(); ++i) {
        const SnapshotRegion& region = regions[i];
        const bool follows = region.start == end;  // Of plain anonymous memory.
        end = region.isPlainAnonymous ? region.end : 0;
        isInLarge = region.isPlainAnonymous &&
                    (follows ? isInLarge : evidence.mappedFrom(region.start) >= kEndOfCompressed);
        if (isArchive(region) && region.start >= kEndOfCompressed) {
            archiveEnd = region.end;
            classSpaceEnd = 0;
        }
        if (!region.isPlainAnonymous || region.start < pieceEnd) continue;
        if (region.start == archiveEnd && classSpaceEnd == 0) {
            // The archive is padded with memory that is never accessible up to the next 16 MiB.
            const std::uint64_t start = (archiveEnd + 16 * kMiB - 1) & ~(16 * kMiB - 1);
            classSpaceEnd = start + kClassSpace;
            if (evidence.mappedFrom(archiveEnd) >= classSpaceEnd - archiveEnd) {
                add({start, classSpaceEnd, Tag::kJavaClassSpace});
                continue;
            }
        }
        if (region.has(SmapsEntry::kExecute))
            add({region.start, region.end, Tag::kJavaCode});
        else if (region.end <= kEndOfCompressed || isInLarge)
            add({region.start, region.end, Tag::kJavaHeap});
        else if (isMetaspaceNode(regions.subspan(i)))
            add({region.start, region.start + kMetaspaceNode, Tag::kJavaMetaspace});
    }
}

}  // namespace zorbel
