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

#include <algorithm>
#include <iterator>

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
constexpr std::uint64_t kPadding = 16 * kMiB;

bool isArchive(const SnapshotRegion& region) {
    return region.file != nullptr && region.file->path.text().ends_with(".jsa");
}

/// Whether a node of the metaspace begins at the region: the parts of 64 MiB begin and end at granules.
bool isMetaspaceNode(std::span<const SnapshotRegion> regions) {
    const std::uint64_t start = regions.front().start;
    // A full arena of the C library is as large, and one region.
    const bool isLikeArena = start % kMetaspaceNode == 0 && regions.front().size() >= kMetaspaceNode;
    if (start % kMetaspaceAlignment != 0 || isLikeArena) return false;
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

/// The regions of a heap of 32 GiB or more: its parts are multiples of 1 MiB, unlike what the kernel may have
/// placed beside it. Empty if there is none.
std::span<const SnapshotRegion> largeHeapIn(const HeapEvidence::Stretch& stretch) {
    if (stretch.size() < kEndOfCompressed) return {};
    const auto isOfHeap = [](const SnapshotRegion& region) {
        return region.start % kMiB == 0 && region.end % kMiB == 0;
    };
    for (auto first = stretch.regions.begin(); first != stretch.regions.end();) {
        first = std::find_if(first, stretch.regions.end(), isOfHeap);
        const auto last = std::find_if_not(first, stretch.regions.end(), isOfHeap);
        if (first != last && std::prev(last)->end - first->start >= kEndOfCompressed) return {first, last};
        first = last;
    }
    return {};
}

std::uint64_t startOf(std::span<const SnapshotRegion> regions) {
    return regions.empty() ? UINT64_MAX : regions.front().start;
}
std::uint64_t endOf(std::span<const SnapshotRegion> regions) {
    return regions.empty() ? 0 : regions.back().end;
}

}  // namespace

void findJavaHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    if (!evidence.runs("libjvm")) return;
    std::vector<std::uint64_t> archiveEnds;
    for (const SnapshotRegion& region : evidence.regions())
        if (isArchive(region)) archiveEnds.push_back(region.end);
    for (const HeapEvidence::Stretch& stretch : evidence.stretches()) {
        const bool isLow = stretch.end() <= kEndOfCompressed;
        const std::span<const SnapshotRegion> large = largeHeapIn(stretch);
        std::uint64_t pieceEnd = 0;
        const auto add = [&](std::uint64_t start, std::uint64_t end, Tag tag) {
            pieces.push_back({start, end, tag});
            pieceEnd = end;
        };
        if (!isLow && std::ranges::binary_search(archiveEnds, stretch.start())) {
            // The archive is padded with memory that is never accessible up to the next 16 MiB.
            const std::uint64_t start = (stretch.start() + kPadding - 1) & ~(kPadding - 1);
            if (start + kClassSpace <= stretch.end()) add(start, start + kClassSpace, Tag::kJavaClassSpace);
        }
        for (std::size_t i = 0; i < stretch.regions.size(); ++i) {
            const SnapshotRegion& region = stretch.regions[i];
            if (region.start < pieceEnd) continue;
            if (region.has(SmapsEntry::kExecute))
                add(region.start, region.end, Tag::kJavaCode);
            else if (isLow || (region.start >= startOf(large) && region.end <= endOf(large)))
                add(region.start, region.end, Tag::kJavaHeap);
            else if (isMetaspaceNode(stretch.regions.subspan(i)))
                add(region.start, region.start + kMetaspaceNode, Tag::kJavaMetaspace);
        }
    }
}

}  // namespace zorbel
