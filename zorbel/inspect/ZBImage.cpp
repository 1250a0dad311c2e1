#include "inspect/ZBImage.h"

#include <unordered_map>
#include <utility>

namespace zorbel {

void ZBImage::setName(Name name) {
    static const Name kText("__TEXT");
    static const Name kLinkedit("__LINKEDIT");
    _name = name;
    if (name.text().starts_with("__DATA"))
        _segment = SegmentCode::kData;
    else if (name == kText)
        _segment = SegmentCode::kText;
    else if (name == kLinkedit)
        _segment = SegmentCode::kLinkedit;
}

Name ZBImage::nameOfRegions() const {
    using Parts = std::pair<Name, Name>;
    struct PartsHash {
        std::size_t operator()(const Parts& parts) const {
            constexpr std::size_t kSpread = 0x9E3779B97F4A7C15;
            return parts.first.hash() * kSpread ^ parts.second.hash();
        }
    };
    // Hundreds of processes load the same libraries. Each worker builds a name once and then needs no lock.
    thread_local std::unordered_map<Parts, Name, PartsHash> composed;
    const auto [entry, isNew] = composed.try_emplace({_name, _ownerPath});
    if (isNew) entry->second = Name(_name.text() + ' ' + _ownerPath.text());
    return entry->second;
}

}  // namespace zorbel
