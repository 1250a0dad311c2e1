#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "inspect/ZBProcess.h"
#include "model/ZBMemoryObject.h"

namespace zorbel {

/// A set of processes of one run, in the order of selection.
///
/// Where a group is known by the pids of its members, a pid means one live process, and no two live processes
/// of a run have the same. Saved processes may: so members are compared by their identity in the run.
class ProcessGroup {
  public:
    explicit ProcessGroup(std::vector<const ZBProcess*> members) : _members(std::move(members)) {}

    [[nodiscard]] const std::vector<const ZBProcess*>& members() const { return _members; }
    [[nodiscard]] std::size_t size() const { return _members.size(); }

    friend bool operator==(const ProcessGroup& a, const ProcessGroup& b) = default;
    /// Orders groups by their members, the first ones selected first.
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

    /// Notes that exactly the members of the group map the object.
    void addObject(const ProcessGroup& group, ZBMemoryObject& object);

    /// Ordinal of a process to the groups that it is in. They point at the keys of the other table.
    [[nodiscard]] const GroupsOfProcess& processToProcessGroups() const { return _processToProcessGroups; }
    /// Group to the objects that exactly its members map, in ascending order of their ordinals.
    [[nodiscard]] const ObjectsOfGroup& processGroupToObjects() const { return _processGroupToObjects; }

  private:
    GroupsOfProcess _processToProcessGroups;
    ObjectsOfGroup _processGroupToObjects;
    ObjectsOfGroup::value_type* _last = nullptr;  // The entry that was added to last.
};

}  // namespace zorbel
