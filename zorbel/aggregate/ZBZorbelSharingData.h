#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "inspect/ZBProcess.h"
#include "model/ZBMemoryObject.h"

namespace zorbel {

/// A set of processes of one run, in the order of selection.
///
/// Live processes of a run have different pids, but saved ones may share a pid. So members are compared by
/// identity.
class ProcessGroup {
  public:
    explicit ProcessGroup(std::vector<const ZBProcess*> members) : _members(std::move(members)) {}

    [[nodiscard]] const std::vector<const ZBProcess*>& members() const { return _members; }
    [[nodiscard]] std::size_t size() const { return _members.size(); }

    friend bool operator==(const ProcessGroup& a, const ProcessGroup& b) = default;
    /// Compares the lists of members by ordinal.
    friend bool operator<(const ProcessGroup& a, const ProcessGroup& b);

    struct Hash {
        std::size_t operator()(const ProcessGroup& group) const;
    };

  private:
    std::vector<const ZBProcess*> _members;
};

/// Which processes share which memory.
class ZBZorbelSharingData {
  public:
    using GroupsOfProcess = std::unordered_map<std::size_t, std::vector<const ProcessGroup*>>;
    using ObjectsOfGroup = std::unordered_map<ProcessGroup, std::vector<ZBMemoryObject*>, ProcessGroup::Hash>;

    /// Records that exactly the members of the group map the object.
    void addObject(const ProcessGroup& group, ZBMemoryObject& object);

    /// From ordinal of a process to its groups, which point to the keys of the other table.
    [[nodiscard]] const GroupsOfProcess& processToProcessGroups() const { return _processToProcessGroups; }
    /// From group to the objects that exactly its members map, in ascending order of the objects' ordinals.
    [[nodiscard]] const ObjectsOfGroup& processGroupToObjects() const { return _processGroupToObjects; }

  private:
    GroupsOfProcess _processToProcessGroups;
    ObjectsOfGroup _processGroupToObjects;
    ObjectsOfGroup::value_type* _last = nullptr;  // The entry of the last added object.
};

}  // namespace zorbel
