#include "model/ZBMemoryRegion.h"

#include <array>
#include <string>

#include "model/MemoryKinds.h"

namespace zorbel {

namespace {

constexpr std::uint32_t kTagCount = 256;
constexpr std::uint32_t kFirstApplicationTag = 240;

std::string tagText(std::uint32_t tag) { return "tag " + std::to_string(static_cast<std::int32_t>(tag)); }

/// The names of all tags below 256, so that naming a region is one look-up.
std::array<Name, kTagCount> makeTagNames() {
    std::array<Name, kTagCount> names;
    for (std::uint32_t tag = 1; tag < kFirstApplicationTag; ++tag) names[tag] = Name(tagText(tag));
    for (const MemoryKind& kind : kMemoryKinds) names[static_cast<std::size_t>(kind.tag)] = Name(kind.name);
    for (std::uint32_t tag = kFirstApplicationTag; tag < kTagCount; ++tag)
        names[tag] = Name("app-specific tag " + std::to_string(tag - kFirstApplicationTag + 1));
    return names;
}

}  // namespace

SizeCounts ZBMemoryRegion::ownSizes() const {
    SizeCounts own = _sizes;
    for (const SharedPart& part : _sharedParts) own -= part.sizes;
    return own;
}

std::strong_ordering ZBMemoryRegion::compare(const ZBMemoryRegion& other) const {
    if (_start != other._start) return _start <=> other._start;
    return other._size <=> _size;
}

Name ZBMemoryRegion::categoryNameForTag(std::uint32_t tag) {
    static const std::array<Name, kTagCount> kNames = makeTagNames();
    if (tag < kTagCount) return kNames[tag];
    if (tag == kTagAllOnes) return Name("Non-volatile physical zorbel");
    return Name(tagText(tag));
}

}  // namespace zorbel
