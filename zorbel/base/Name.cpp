#include "base/Name.h"

#include <array>
#include <mutex>
#include <unordered_set>

namespace zorbel {

namespace {

struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

/// A part of the pool. Texts are spread over several parts, so that workers rarely wait for each other.
struct Shard {
    std::mutex mutex;
    std::unordered_set<std::string, TextHash, std::equal_to<>> texts;
};

constexpr std::size_t kShardCount = 16;

std::array<Shard, kShardCount>& shards() {
    // Never destroyed, so that names in static objects stay valid during exit.
    static auto* pool = new std::array<Shard, kShardCount>();
    return *pool;
}

}  // namespace

Name::Name(std::string_view text) {
    Shard& shard = shards()[TextHash()(text) % kShardCount];
    const std::lock_guard lock(shard.mutex);
    auto found = shard.texts.find(text);
    if (found == shard.texts.end()) found = shard.texts.emplace(text).first;
    _text = &*found;  // Elements of a node-based set never move.
}

const std::string& Name::text() const {
    static const std::string kAbsent;
    return _text != nullptr ? *_text : kAbsent;
}

}  // namespace zorbel
