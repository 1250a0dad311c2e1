#include "aggregate/ZBZorbelSharingData.h"

#include <algorithm>
#include <boost/container_hash/hash.hpp>

namespace zorbel {

bool operator<(const ProcessGroup& a, const ProcessGroup& b) {
    return std::lexicographical_compare(
        a._members.begin(), a._members.end(), b._members.begin(), b._members.end(),
        [](const ZBProcess* x, const ZBProcess* y) { return x->ordinal() < y->ordinal(); });
}

std::size_t ProcessGroup::Hash::operator()(const ProcessGroup& group) const {
    std::size_t seed = 0;
    for (const ZBProcess* member : group._members) boost::hash_combine(seed, member->ordinal());
    return seed;
}

void ZBZorbelSharingData::addObject(const ProcessGroup& group, ZBMemoryObject& object) {
    // Objects are in the order of processes, so most have the same group as the previous one.
    if (_last != nullptr && _last->first == group) return _last->second.push_back(&object);
    const auto [entry, isNew] = _processGroupToObjects.try_emplace(group);
    _last = &*entry;
    entry->second.push_back(&object);
    if (!isNew) return;
    for (const ZBProcess* member : group.members())
        _processToProcessGroups[member->ordinal()].push_back(&entry->first);
}

}  // namespace zorbel
