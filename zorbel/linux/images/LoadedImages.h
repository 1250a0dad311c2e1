#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "linux/images/ElfFiles.h"
#include "linux/process/SnapshotRegion.h"
#include "platform/Symbolicator.h"

namespace zorbel {

/// The programs and libraries that a process has loaded, with their segments.
class LoadedImages {
  public:
    /// Finds the images in the regions of a process, which are in ascending order.
    static LoadedImages inRegions(std::span<const SnapshotRegion> regions, ElfFiles& files,
                                  int processDirectory);

    /// All segments, image by image, in ascending order within each image.
    [[nodiscard]] std::span<const SymbolSegment> segments() const { return _segments; }

    /// Headers of the image with the lowest address, which is the program; null if they could not be read.
    [[nodiscard]] const ElfLayout* program() const { return _program; }

    void forEachOwner(const std::function<void(const SymbolOwner&)>& consume) const;

  private:
    struct Owner {
        Name path;
        std::size_t segmentsEnd = 0;
    };
    class Finder;

    std::vector<SymbolSegment> _segments;
    std::vector<Owner> _owners;
    const ElfLayout* _program = nullptr;
};

}  // namespace zorbel
