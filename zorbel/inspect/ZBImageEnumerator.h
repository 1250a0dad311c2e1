#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "inspect/ZBImage.h"

namespace zorbel {

/// A cursor over a process's images that only moves forward, for ranges in ascending order.
class ZBImageEnumerator {
  public:
    /// The images must be sorted by start and outlive this object.
    explicit ZBImageEnumerator(const std::vector<ZBImage>& images) : _images(images) {}

    /// The first image from the cursor on that overlaps [start, end); null if there is none. Skips images
    /// before start, and empty ones, for all later calls too.
    const ZBImage* nextImageForStart(std::uint64_t start, std::uint64_t end);

  private:
    const std::vector<ZBImage>& _images;
    std::size_t _index = 0;
};

}  // namespace zorbel
