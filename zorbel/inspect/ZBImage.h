#pragma once

#include <cstdint>
#include <limits>

#include "base/Name.h"
#include "model/ZBMemoryRegion.h"

namespace zorbel {

/// One segment of a loaded image: its kind and its place in the target, in bytes.
class ZBImage {
  public:
    /// Set by setName().
    [[nodiscard]] SegmentCode segment() const { return _segment; }

    /// Name of the segment, such as "__DATA".
    [[nodiscard]] Name name() const { return _name; }
    /// Also sets the segment code; a name without a segment code leaves it unchanged.
    void setName(Name name);

    /// Path of the image's file, symbolic links resolved.
    [[nodiscard]] Name ownerPath() const { return _ownerPath; }
    void setOwnerPath(Name path) { _ownerPath = path; }

    [[nodiscard]] std::uint64_t start() const { return _start; }
    void setStart(std::uint64_t start) { _start = start; }

    [[nodiscard]] std::uint64_t size() const { return _size; }
    void setSize(std::uint64_t size) { _size = size; }

    /// First address after the segment; the highest address if start + size overflows.
    [[nodiscard]] std::uint64_t end() const {
        constexpr std::uint64_t kHighest = std::numeric_limits<std::uint64_t>::max();
        return _size > kHighest - _start ? kHighest : _start + _size;
    }

    /// Name for the segment's regions: its name, a blank and the path.
    [[nodiscard]] Name nameOfRegions() const;

  private:
    SegmentCode _segment = SegmentCode::kUnspecified;
    Name _name;
    Name _ownerPath;
    std::uint64_t _start = 0;
    std::uint64_t _size = 0;
};

}  // namespace zorbel
