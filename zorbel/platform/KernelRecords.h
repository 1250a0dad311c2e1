#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace zorbel {

/// Name of a kernel zone, a pool of objects of one size. Not terminated if it fills the array.
struct ZoneNameRecord {
    char mzn_name[80] = {};
};

/// Figures of a zone.
struct ZoneInfoRecord {
    std::uint64_t mzi_count = 0;        ///< Objects in use.
    std::uint64_t mzi_cur_size = 0;     ///< Bytes allocated to the zone.
    std::uint64_t mzi_elem_size = 0;    ///< Bytes of an object.
    std::uint64_t mzi_collectable = 0;  ///< Unused bytes, for zones that can return them.
};

/// A site that has allocated kernel memory, or a counter of pages.
struct MemoryInfoRecord {
    // The low byte of the flags is the kind of site; it defines the meaning of the site number.
    static constexpr std::uint64_t kKindMask = 0xFF;
    static constexpr std::uint64_t kTagSite = 0;      ///< An allocation tag.
    static constexpr std::uint64_t kModuleSite = 1;   ///< The load tag of a kernel module.
    static constexpr std::uint64_t kAddressSite = 2;  ///< An address in the kernel.
    static constexpr std::uint64_t kCounter = 3;      ///< The number of a page counter.

    static constexpr std::uint64_t kWired = 0x100;
    static constexpr std::uint64_t kHidden = 0x200;  ///< The memory is also part of another record.
    static constexpr std::uint64_t kNamed = 0x400;   ///< Has its own name.
    static constexpr std::uint64_t kZone = 0x800;    ///< The memory comes from a zone.

    std::uint64_t flags = 0;
    std::uint64_t site = 0;
    std::uint64_t size = 0;    ///< Bytes.
    std::uint64_t mapped = 0;  ///< Bytes; the value of a counter.
    std::uint16_t zone = 0;    ///< Index of a zone.
    char name[80] = {};
};

/// The kernel's account of its own memory. Valid until the arrays are given back with vm_deallocate.
struct KernelMemoryAccount {
    std::span<const ZoneNameRecord> zoneNames;
    std::span<const ZoneInfoRecord> zones;  ///< One for each zone name, in the same order.
    std::span<const MemoryInfoRecord> memory;
};

/// A loaded kernel module.
struct KernelModuleInfo {
    std::optional<std::string> bundleIdentifier;
    std::optional<std::uint64_t> loadTag;
};

}  // namespace zorbel
