#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "linux/pages/FrameTable.h"

namespace zorbel {

/// Pages, resident and in swap.
struct HeldPages {
    std::uint64_t resident = 0;
    std::uint64_t swapped = 0;

    [[nodiscard]] std::uint64_t sum() const { return resident + swapped; }
    HeldPages& operator+=(const HeldPages& other) {
        resident += other.resident;
        swapped += other.swapped;
        return *this;
    }
};

/// Which regions hold private pages in common, and how many different ones those are.
///
/// After a fork, parent and child map the same pages until one of them writes. KSM merges equal pages of any
/// processes. So that each page counts once, all regions of a run note each page they hold that is not
/// certainly theirs alone: its frame, or its slot in swap. A table keeps for each page the first region that
/// has noted it, and whether a second one has:
///
/// * The first note of a page counts it as alone for its region.
/// * The second one, by another region, counts it as shared instead, once, and unites the two regions into
/// one lineage.
/// * Further notes unite only.
///
/// At the end, a lineage is a set of regions that are connected by common pages, directly or through others;
/// the pages that count for it are the shared counts of its members together; and what a member has alone
/// counts for the member. All of that is the same in whatever order regions note their pages, so workers need
/// no order and no list of pages is kept.
///
/// Cost: one access to the table for each page noted, about 2 ns where frames follow each other, and
/// otherwise a cache miss; 4 bytes of memory for each different page.
class Lineages {
  public:
    using Member = std::uint32_t;

    Lineages() = default;
    Lineages(const Lineages&) = delete;
    Lineages& operator=(const Lineages&) = delete;
    ~Lineages();

    /// A new region. From any thread.
    Member addMember();

    /// Notes the pages that a region holds, from one thread at a time. It counts for itself and adds the sums
    /// to the lineages at its end: workers that write to neighbouring records all the time hold each other
    /// up.
    class Holder {
      public:
        Holder(Lineages& lineages, Member member) : _lineages(lineages), _member(member) {}
        ~Holder();
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;

        /// Notes that the region holds so many consecutive frames.
        void holdFrames(std::uint64_t frame, std::uint64_t count);
        void holdFrame(std::uint64_t frame);
        /// Notes that the region holds a slot in swap.
        void holdSlot(std::uint64_t slot);

      private:
        void _hold(FrameTable::Word& word, std::size_t kind);
        void _holdKnown(FrameTable::Word& word, std::uint32_t known, std::size_t kind);
        void _handOverTaken();

        Lineages& _lineages;
        Member _member;
        /// The word of shared pages first noted by the member that was met last: mostly it is the next one's,
        /// too.
        std::uint32_t _lastMet = 0;
        std::span<FrameTable::Word> _near;  ///< Words from that of frame _nearFrame on, which was held last.
        std::uint64_t _nearFrame = 0;
        std::array<std::int64_t, 2> _alone{};
        std::array<std::int64_t, 2> _shared{};
        std::array<std::int64_t, 2> _taken{};  ///< No longer alone in the member that was met last.
    };

    // When all holders have ended:

    /// The first member of the lineage that a region is part of: itself where it shares nothing.
    [[nodiscard]] Member lineageOf(Member member) const;
    /// Pages that the region holds and no other region of the run does, each once.
    [[nodiscard]] HeldPages aloneIn(Member member) const;
    /// What the region adds to the pages of its lineage.
    [[nodiscard]] HeldPages sharedThrough(Member member) const;

  private:
    static constexpr std::size_t kResident = 0;
    static constexpr std::size_t kSwapped = 1;
    /// Of a word; the rest is a member's number plus 1.
    static constexpr std::uint32_t kShared = 0x80000000;
    static constexpr std::size_t kBlockSize = 4096;
    static constexpr std::size_t kMostBlocks = 1 << 12;

    struct Record {
        std::atomic<Member> parent = 0;
        std::array<std::atomic<std::int64_t>, 2> alone{};
        std::array<std::int64_t, 2> shared{};  ///< Changed by the holder of the region only.
    };
    struct Block {
        std::array<Record, kBlockSize> records;
    };

    [[nodiscard]] Record& _record(Member member) const {
        return _blocks[member / kBlockSize].load(std::memory_order_acquire)->records[member % kBlockSize];
    }
    void _unite(Member a, Member b);

    FrameTable _frames;
    FrameTable _slots;
    std::array<std::atomic<Block*>, kMostBlocks> _blocks{};
    std::atomic<Member> _count = 0;
};

}  // namespace zorbel
