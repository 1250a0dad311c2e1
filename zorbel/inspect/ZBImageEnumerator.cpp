#include "inspect/ZBImageEnumerator.h"

namespace zorbel {

const ZBImage* ZBImageEnumerator::nextImageForStart(std::uint64_t start, std::uint64_t end) {
    for (; _index < _images.size(); ++_index) {
        const ZBImage& image = _images[_index];
        if (image.size() == 0 || image.end() <= start) continue;
        return image.start() < end ? &image : nullptr;
    }
    return nullptr;
}

}  // namespace zorbel
