#include "linux/pages/FrameFlags.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "linux/pages/PageTables.h"

namespace zorbel {

namespace {

// As in <linux/kernel-page-flags.h>.
constexpr std::uint64_t kAnonymous = 1U << 12;
constexpr std::uint64_t kSwapCache = 1U << 13;
constexpr std::uint64_t kSwapBacked = 1U << 14;
// There "mapped to disk", which means this for anonymous pages.
constexpr std::uint64_t kOfOneAddressSpace = std::uint64_t{1} << 34;

}  // namespace

FrameFlags::FrameFlags(const SystemRoot& root)
    : _file(openForReading((root.proc + "/kpageflags").c_str(), AT_FDCWD)) {}

bool FrameFlags::_read(std::uint64_t frame, std::span<std::uint64_t> flags) const {
    const auto place = static_cast<off_t>(frame * sizeof(std::uint64_t));
    return pread(_file.get(), flags.data(), flags.size_bytes(), place) ==
           static_cast<ssize_t>(flags.size_bytes());
}

bool FrameFlags::mayBeCopyOfSlot(std::uint64_t frame) const {
    std::uint64_t flags = 0;
    return _read(frame, {&flags, 1}) && (flags & (kSwapCache | kOfOneAddressSpace)) == kSwapCache;
}

bool FrameFlags::mayBeLazy(std::span<const std::uint64_t> words) const {
    std::array<std::uint64_t, 512> buffer;
    const auto isLazy = [](std::uint64_t flags) {
        return (flags & (kAnonymous | kSwapBacked)) == kAnonymous;
    };
    for (std::size_t first = 0; first < words.size();) {
        const PageWord word(words[first]);
        std::size_t next = first + 1;
        if (word.isPresent() && !word.isFile()) {
            // Frames that follow each other are asked for together.
            while (next < words.size() && next - first < buffer.size() && PageWord(words[next]).isPresent() &&
                   PageWord(words[next]).frame() == word.frame() + (next - first))
                ++next;
            const std::span flags(buffer.data(), next - first);
            if (_read(word.frame(), flags) && std::ranges::any_of(flags, isLazy)) return true;
        }
        first = next;
    }
    return false;
}

}  // namespace zorbel
