#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/Name.h"
#include "platform/Records.h"

namespace zorbel {

/// The data in a memory graph about its process as a whole.
struct GraphProcess {
    std::int32_t pid = 0;
    bool is64bit = false;
    std::string processName;
    std::string processDescription;  ///< Includes the kind of machine.
    std::uint32_t vmPageSize = 0;    ///< Bytes; a power of two.
    // Bytes.
    std::uint64_t physZorbel = 0;
    std::uint64_t physZorbelPeak = 0;
    bool breakDownPhysZorbel = false;  ///< Whether it was saved in breakdown mode.
};

/// A part of a region that counts for an object of its own, as in SharedPages. Sizes are bytes.
struct GraphSharedPart {
    std::uint32_t object_id = 0;
    // Of the sizes of the region.
    std::uint64_t resident_size = 0;
    std::uint64_t swapped_out_size = 0;
    std::uint64_t dirty_size = 0;
    // Of the object as a whole.
    std::uint64_t object_resident_size = 0;
    std::uint64_t object_swapped_out_size = 0;
    std::uint64_t object_dirty_size = 0;
};

/// One region of a memory graph. Sizes are bytes.
struct GraphRegion {
    std::uint64_t address = 0;
    std::uint64_t length = 0;
    Name type;  ///< Name of the image segment, such as "__TEXT", or of another kind of memory.
    Name path;  ///< The image or the file; empty if there is none.
    // As in RegionInfoRecord, where some names differ.
    std::int32_t prot = 0;
    std::int32_t maxProt = 0;
    std::uint32_t user_tag = 0;
    std::uint64_t resident_size = 0;
    std::uint64_t shared_now_private_size = 0;
    std::uint64_t swapped_out_size = 0;
    std::uint64_t dirty_size = 0;
    std::uint16_t ref_count = 0;
    std::uint8_t external_pager = 0;
    std::uint8_t share_mode = 0;
    bool is_submap = false;
    std::uint32_t object_id = 0;
    std::int32_t purgeable = kPurgeableDeny;
    std::vector<GraphSharedPart> shared;
};

/// An open memory graph: the state of one process when it was saved.
class MemoryGraphReader {
  public:
    MemoryGraphReader() = default;
    MemoryGraphReader(const MemoryGraphReader&) = delete;
    MemoryGraphReader& operator=(const MemoryGraphReader&) = delete;
    virtual ~MemoryGraphReader() = default;

    [[nodiscard]] virtual const GraphProcess& process() const = 0;

    /// Calls the visitor for each region, in ascending order, until it sets stop.
    virtual void enumerateRegions(
        const std::function<void(const GraphRegion& region, bool& stop)>& visitor) const = 0;
};

}  // namespace zorbel
