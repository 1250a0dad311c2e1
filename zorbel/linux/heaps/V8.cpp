// V8, as Node.js, Electron and Chromium have it.
//
// Evidence: the program or one of its libraries is V8 or embeds it, which the name of the file shows. Objects
// are in pages of 256 KiB, aligned to that. There are three layouts:
//
// * Node.js maps each page by itself at a random address below 2^46 (base/platform: GetRandomMmapAddr): far
//   below where the kernel places mappings by itself. An object that is larger has a mapping of its own,
//   which begins like a page.
// * With compressed pointers, all pages are in a reservation (a cage) of 4 GiB, aligned to its size.
// * With a sandbox, as in Chromium, that and the tables that belong to it are in a reservation of a TiB or
// about.
//
// Oilpan, the heap for objects of Chromium's own that V8 comes with (cppgc), has a cage of 16 GiB. What can
// be executed without being a file's is generated code.

#include <algorithm>

#include "linux/heaps/HeapOwners.h"
#include "linux/process/Smaps.h"

namespace zorbel {

namespace {

constexpr std::uint64_t kPageOfV8 = 256 << 10;
constexpr std::uint64_t kEndOfHints = std::uint64_t{1} << 46;
constexpr std::uint64_t kCage = std::uint64_t{4} << 30;
constexpr std::uint64_t kOilpanCage = std::uint64_t{16} << 30;
constexpr std::uint64_t kSmallestSandbox = std::uint64_t{512} << 30;

constexpr std::string_view kEmbedders[] = {"node", "libnode", "libv8", "electron", "deno", "d8"};
constexpr std::string_view kBrowsers[] = {"chrome", "chromium", "headless_shell",
                                          "brave",  "msedge",   "libcef"};

/// Whose the whole stretch is, if anybody's.
Tag tagOfReservation(const HeapEvidence::Stretch& stretch, bool isBrowser) {
    if (isBrowser && stretch.size() >= kSmallestSandbox) return Tag::kV8Heap;
    if (stretch.start() % kCage != 0) return Tag::kNone;
    if (stretch.size() == kOilpanCage) return Tag::kOilpanHeap;
    return stretch.size() == kCage ? Tag::kV8Heap : Tag::kNone;
}

/// Whether the kernel places mappings above the addresses that V8 chooses from, so that it places none there.
bool leavesHintsAlone(const HeapEvidence& evidence) {
    return std::ranges::any_of(evidence.regions(), [](const SnapshotRegion& region) {
        return region.file != nullptr && region.has(SmapsEntry::kExecute) && region.start >= kEndOfHints &&
               region.file->path.text().find(".so") != std::string::npos;
    });
}

}  // namespace

void findV8Heap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces) {
    const bool isBrowser = evidence.runsAny(kBrowsers);
    if (!isBrowser && !evidence.runsAny(kEmbedders)) return;
    const bool mayBePages = leavesHintsAlone(evidence);
    for (const HeapEvidence::Stretch& stretch : evidence.stretches()) {
        const Tag whole = tagOfReservation(stretch, isBrowser);
        for (const SnapshotRegion& region : stretch.regions) {
            const bool isPage = mayBePages && region.start % kPageOfV8 == 0 && region.start < kEndOfHints;
            if (region.has(SmapsEntry::kExecute))
                pieces.push_back({region.start, region.end, Tag::kJitCode});
            else if (whole != Tag::kNone || isPage)
                pieces.push_back({region.start, region.end, whole != Tag::kNone ? whole : Tag::kV8Heap});
        }
    }
}

}  // namespace zorbel
