#include "linux/heaps/Blocks.h"

#include <algorithm>

#include "linux/process/Smaps.h"

namespace zorbel {

void findBlocks(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    std::vector<BlockKind> kinds;
    for (const BlockOwner* owner : {&kErlang, &kPython, &kRuby, &kTransientRuby, &kGlibc})
        if (owner->files.empty() || evidence.runsAny(owner->files))
            kinds.insert(kinds.end(), owner->kinds.begin(), owner->kinds.end());
    std::size_t left = kMostLooks;
    for (const SnapshotRegion& region : evidence.regions()) {
        const bool isReadWrite = region.protection == (SmapsEntry::kRead | SmapsEntry::kWrite);
        if (!region.isPlainAnonymous || !isReadWrite || region.size() < kSmallestBlock) continue;
        for (std::uint64_t at = region.start; at < region.end && left > 0;) {
            --left;
            HeapPiece piece{at, 0, Tag::kNone};
            for (const BlockKind& kind : kinds) {
                const std::uint64_t size = kind.sizeAt(evidence, at, region.end);
                if (size == 0) continue;
                piece.end = std::min(at + size, region.end);
                piece.tag = kind.tag;
                break;
            }
            if (piece.end <= at) break;
            if (!pieces.empty() && pieces.back().end == at && pieces.back().tag == piece.tag)
                pieces.back().end = piece.end;
            else
                pieces.push_back(piece);
            at = piece.end;
        }
    }
}

}  // namespace zorbel
