#pragma once

#include <cstdint>
#include <span>

#include "linux/kinds/FileSystems.h"
#include "linux/process/Smaps.h"
#include "linux/process/SnapshotRegion.h"
#include "model/MemoryKinds.h"

namespace zorbel {

/// What an entry tells of its own kind.
struct RegionKind {
    Tag tag = Tag::kNone;
    /// Whether clean pages can be read again from a file.
    bool hasStorage = false;
};

/// Kind of an entry by its path and flags. The file system is that of its device, and matters only for an
/// entry that maps a file.
RegionKind kindOfEntry(const SmapsEntry& entry, FileSystems::Kind fileSystem);

/// Whether the entry's memory is a file's, be it one that lives in memory only.
bool mapsFile(const SmapsEntry& entry);

/// Finds the kinds of the plain anonymous regions of one address space, given in ascending order: their place
/// and their neighbours tell what no name does.
void findAnonymousKinds(std::span<SnapshotRegion> regions);

}  // namespace zorbel
