#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/images/ElfFiles.h"
#include "linux/process/SnapshotRegion.h"
#include "model/MemoryKinds.h"

namespace zorbel {

/// A process, as those see it who look for the heaps of runtimes and allocators in it.
class HeapEvidence {
  public:
    /// The regions are in ascending order. The layout is that of the program's file; null if it is not known.
    /// Read fills a buffer from the memory of the process, if that is all in memory; false otherwise.
    using Read = std::function<bool(std::uint64_t address, std::span<std::byte> buffer)>;
    HeapEvidence(std::span<const SnapshotRegion> regions, const ElfLayout* program, Read read);

    [[nodiscard]] std::span<const SnapshotRegion> regions() const { return _regions; }
    [[nodiscard]] const ElfLayout* program() const { return _program; }

    /// Whether the process maps code of a file with this name, without the directory: up to the end, a digit,
    /// a point or a hyphen, which begin a version.
    [[nodiscard]] bool runs(std::string_view name) const;
    [[nodiscard]] bool runsAny(std::span<const std::string_view> names) const;
    /// Memory without a gap that maps no file: regions that follow each other. Whatever reserves a large
    /// piece of address space, and makes parts of it accessible, leaves one such stretch.
    struct Stretch {
        std::span<const SnapshotRegion> regions;

        [[nodiscard]] std::uint64_t start() const { return regions.front().start; }
        [[nodiscard]] std::uint64_t end() const { return regions.back().end; }
        [[nodiscard]] std::uint64_t size() const { return end() - start(); }
    };
    [[nodiscard]] std::vector<Stretch> stretches() const;

    /// Reads values at an address; false if they are not in memory, or may not be read. Never makes the
    /// process or us wait for a page.
    template <typename Value, std::size_t count>
    bool read(std::uint64_t address, std::array<Value, count>& values) const {
        return _read(address, std::as_writable_bytes(std::span(values)));
    }

  private:
    std::span<const SnapshotRegion> _regions;
    const ElfLayout* _program;
    Read _read;
    std::vector<std::string_view> _files;  ///< Names of the files with code, without their directories.
};

/// A piece of an address space that belongs to one owner. Regions are split at its ends.
struct HeapPiece {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    Tag tag = Tag::kNone;
};

/// Finds the heaps of one runtime or allocator. Adds pieces only where the evidence that its source file
/// names is complete: a wrong name is worse than none. Its pieces are disjoint.
using HeapFinder = void (*)(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);

/// Whether a region is worth looking for its owner: most small programs have none.
bool mayBeHeap(const SnapshotRegion& region);

/// All pieces that have an owner, in ascending order and disjoint. What two owners claim, the one has that is
/// listed first in HeapOwners.cpp.
std::vector<HeapPiece> findHeaps(const HeapEvidence& evidence);

/// Sets the kinds of plain anonymous regions within the pieces that can be accessed, and of the main heap of
/// the C library where another allocator has taken it over. Names that a program has given win, and what is
/// only reserved stays so.
void nameHeaps(std::span<SnapshotRegion> regions, std::span<const HeapPiece> pieces);

// The finders, each in a source file of its own with the evidence that it takes.
void findGoHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findJavaHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findJemallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findBlocks(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findMimallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findPartitionAllocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findTcmallocHeap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);
void findV8Heap(const HeapEvidence& evidence, std::vector<HeapPiece>& pieces);

}  // namespace zorbel
