#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace zorbel {

/// One entry of /proc/PID/smaps. Addresses, offset and size() are bytes; the figures from "resident" on are
/// KiB, as the kernel prints them.
struct SmapsEntry {
    // Bits of flags, from VmFlags.
    static constexpr std::uint32_t kMayRead = 0x1;        ///< mr
    static constexpr std::uint32_t kMayWrite = 0x2;       ///< mw
    static constexpr std::uint32_t kMayExecute = 0x4;     ///< me
    static constexpr std::uint32_t kLocked = 0x8;         ///< lo
    static constexpr std::uint32_t kHugePages = 0x10;     ///< ht: hugetlbfs
    static constexpr std::uint32_t kDeviceMemory = 0x20;  ///< io or pf: not pages of system memory
    static constexpr std::uint32_t kAccounted = 0x40;     ///< ac: has own pages, or could have had some

    // Bits of permissions, the same as in RegionInfoRecord::protection.
    static constexpr std::uint8_t kRead = 0x1;
    static constexpr std::uint8_t kWrite = 0x2;
    static constexpr std::uint8_t kExecute = 0x4;

    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0;  ///< Bytes into the file.
    std::uint64_t device = 0;  ///< As returned by makedev().
    std::uint64_t inode = 0;
    std::uint8_t permissions = 0;
    bool isShared = false;  ///< MAP_SHARED.
    std::uint32_t flags = 0;
    /// As the kernel prints it; empty for plain anonymous memory. Points into the parsed text.
    std::string_view path;

    std::uint64_t resident = 0;
    std::uint64_t sharedDirty = 0;
    std::uint64_t privateDirty = 0;
    std::uint64_t anonymous = 0;  ///< Resident pages that do not belong to a file.
    std::uint64_t lazyFree = 0;
    std::uint64_t sharedHugetlb = 0;
    std::uint64_t privateHugetlb = 0;
    std::uint64_t swap = 0;

    [[nodiscard]] std::uint64_t size() const { return end - start; }
    [[nodiscard]] std::uint64_t hugetlb() const { return sharedHugetlb + privateHugetlb; }
};

/// Calls consume for each entry of a piece of smaps. Returns how many bytes were used: pass the rest again,
/// with more text, since its entry may be cut off. Set atEnd if no more text follows. Skips lines that it
/// can't read.
std::size_t parseSmaps(std::string_view text, bool atEnd,
                       const std::function<void(const SmapsEntry&)>& consume);

}  // namespace zorbel
