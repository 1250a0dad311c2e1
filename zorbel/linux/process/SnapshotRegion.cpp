#include "linux/process/SnapshotRegion.h"

#include <algorithm>

namespace zorbel {

std::uint8_t SnapshotRegion::shareMode() const {
    if (!isPrivate) return kShareModeShared;
    if (file == nullptr) {
        const bool isEmpty = pages.anonymous + pages.file + pages.swapped + pages.fileSwapped == 0;
        return isEmpty ? kShareModeEmpty : kShareModePrivate;
    }
    // A mapping of a file in memory without a page of its own is the file's, like the shared ones.
    return !hasStorage && !hasOwnPages() ? kShareModeShared : kShareModeCopyOnWrite;
}

RegionInfoRecord SnapshotRegion::record() const {
    RegionInfoRecord record;
    record.protection = protection;
    record.max_protection = maxProtection;
    record.offset = offset;
    record.user_tag = static_cast<std::uint32_t>(tag);
    record.pages_resident = isKernels() ? pages.anonymous : pages.anonymous + pages.file;
    record.pages_dirtied = !hasStorage ? record.pages_resident - std::min(pages.lazy, record.pages_resident)
                           : isPrivate ? pages.anonymous - pages.lazy
                                       : std::min(pages.fileDirty, pages.file);
    record.pages_reusable = pages.lazy;
    record.pages_swapped_out = pages.swapped + pages.fileSwapped;
    record.user_wired_count = isHuge || isLocked ? record.pages_resident : 0;
    record.object_id = objectId;
    record.external_pager = hasStorage ? 1 : 0;
    record.share_mode = shareMode();
    record.shared = shared;
    return record;
}

}  // namespace zorbel
