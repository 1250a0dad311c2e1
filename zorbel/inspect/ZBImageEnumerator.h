#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "inspect/ZBImage.h"

namespace zorbel {

/// A cursor over the images of a process that only moves forward, for ranges that come in ascending order.
class ZBImageEnumerator {
  public:
    /// The images are sorted by start, and lent.
    explicit ZBImageEnumerator(const std::vector<ZBImage>& images) : _images(images) {}

    /// The first image from the cursor on that overlaps [start, end); null when there is none. Images that
    /// lie before the start are passed for good, and so are those without bytes.
    const ZBImage* nextImageForStart(std::uint64_t start, std::uint64_t end);

  private:
    const std::vector<ZBImage>& _images;
    std::size_t _index = 0;
};

}  // namespace zorbel
