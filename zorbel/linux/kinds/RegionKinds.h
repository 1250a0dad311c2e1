#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "linux/kinds/FileSystems.h"
#include "linux/process/Smaps.h"
#include "linux/process/SnapshotRegion.h"
#include "model/MemoryKinds.h"

namespace zorbel {

/// What an smaps entry alone shows about its kind.
struct RegionKind {
    Tag tag = Tag::kNone;
    /// Whether clean pages can be read again from storage.
    bool hasStorage = false;
};

/// The kind of an entry, from its path and flags. The file system is the one of its device; it is used only
/// if the entry maps a file, as is what else is known of the file: whether it is a node of a block device,
/// whose pages are a cache of the device.
RegionKind kindOfEntry(const SmapsEntry& entry, FileSystems::Kind fileSystem, bool isBlockDevice = false);

/// Whether the entry maps a file, including a file that is in memory only.
bool mapsFile(const SmapsEntry& entry);

/// Whether memory of this kind is the pages of a file without storage, which the kernel can count for us.
bool hasSharedPages(Tag tag);

/// Sets the kinds of plain anonymous regions, which have no name, by their addresses and neighbours. The
/// regions are those of one address space, in ascending order.
///
/// What can be read and is an arena of the C library has been found by its contents before: only where memory
/// can't be read, arenas are known by their layout.
void findAnonymousKinds(std::span<SnapshotRegion> regions,
                        const std::function<bool(std::uint64_t address)>& mayRead);

}  // namespace zorbel
