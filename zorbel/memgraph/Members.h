#pragma once

// The JSON members of a memory graph, for reading and writing.

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <variant>

#include "memgraph/MemoryGraph.h"

namespace zorbel {

/// A member of a JSON object: its name, and the field for its value.
template <typename Record>
struct Member {
    using Field = std::variant<std::uint64_t Record::*, std::uint32_t Record::*, std::int32_t Record::*,
                               std::uint16_t Record::*, std::uint8_t Record::*, bool Record::*,
                               std::string Record::*, Name Record::*>;

    std::string_view name;
    Field field;
    std::uint64_t most = 0;  ///< Largest allowed number; the smallest is 0.
};

inline constexpr std::uint64_t kMost16 = std::numeric_limits<std::uint16_t>::max();
inline constexpr std::uint64_t kMost8 = std::numeric_limits<std::uint8_t>::max();
inline constexpr std::uint64_t kMost32 = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::uint64_t kMostSigned32 = std::numeric_limits<std::int32_t>::max();
inline constexpr std::uint64_t kMostSigned64 = std::numeric_limits<std::int64_t>::max();

/// For all page sizes from this one on, page counts fit into 32 bits.
inline constexpr std::uint64_t kLeastPageSize = 4096;
inline constexpr std::uint64_t kMostPageSize = 1 << 20;
inline constexpr std::uint64_t kMostBytes = kMost32 * kLeastPageSize;

/// In the order of the file; the regions follow them.
inline const std::array<Member<MemoryGraph>, 11> kGraphMembers = {{
    {"format", &MemoryGraph::format},
    {"version", &MemoryGraph::version, kMost32},
    {"capture", &MemoryGraph::capture},
    {"pid", &MemoryGraph::pid, kMostSigned32},
    {"is64bit", &MemoryGraph::is64bit},
    {"processName", &MemoryGraph::processName},
    {"processDescription", &MemoryGraph::processDescription},
    {"vmPageSize", &MemoryGraph::vmPageSize, kMostPageSize},
    {"physZorbel", &MemoryGraph::physZorbel, kMostSigned64},
    {"physZorbelPeak", &MemoryGraph::physZorbelPeak, kMostSigned64},
    {"breakDownPhysZorbel", &MemoryGraph::breakDownPhysZorbel},
}};

inline constexpr std::string_view kRegionsMember = "regions";

inline const std::array<Member<GraphRegion>, 17> kRegionMembers = {{
    {"address", &GraphRegion::address, std::numeric_limits<std::uint64_t>::max()},
    {"length", &GraphRegion::length, kMostSigned64},
    {"type", &GraphRegion::type},
    {"path", &GraphRegion::path},
    {"prot", &GraphRegion::prot, kMostSigned32},
    {"maxProt", &GraphRegion::maxProt, kMostSigned32},
    {"user_tag", &GraphRegion::user_tag, kMost32},
    {"resident_size", &GraphRegion::resident_size, kMostBytes},
    {"shared_now_private_size", &GraphRegion::shared_now_private_size, kMostBytes},
    {"swapped_out_size", &GraphRegion::swapped_out_size, kMostBytes},
    {"dirty_size", &GraphRegion::dirty_size, kMostBytes},
    {"ref_count", &GraphRegion::ref_count, kMost16},
    {"external_pager", &GraphRegion::external_pager, kMost8},
    {"share_mode", &GraphRegion::share_mode, kMost8},
    {"is_submap", &GraphRegion::is_submap},
    {"object_id", &GraphRegion::object_id, kMost32},
    {"purgeable", &GraphRegion::purgeable, kPurgeableDeny},
}};

/// The only optional member of a region, which it has if there are parts; after the others.
inline constexpr std::string_view kSharedMember = "shared";
inline constexpr std::size_t kMostParts = 8;

inline const std::array<Member<GraphSharedPart>, 7> kPartMembers = {{
    {"object_id", &GraphSharedPart::object_id, kMost32},
    {"resident_size", &GraphSharedPart::resident_size, kMostBytes},
    {"swapped_out_size", &GraphSharedPart::swapped_out_size, kMostBytes},
    {"dirty_size", &GraphSharedPart::dirty_size, kMostBytes},
    {"object_resident_size", &GraphSharedPart::object_resident_size, kMostBytes},
    {"object_swapped_out_size", &GraphSharedPart::object_swapped_out_size, kMostBytes},
    {"object_dirty_size", &GraphSharedPart::object_dirty_size, kMostBytes},
}};

}  // namespace zorbel
