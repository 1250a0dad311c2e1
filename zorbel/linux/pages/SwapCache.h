#pragma once

#include <array>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "linux/pages/FrameTable.h"
#include "linux/pages/Lineages.h"

namespace zorbel {

/// Pages of a family of processes that some of them see in memory and others in swap.
///
/// After a fork and a swap-out, all members hold the same slot. One that touches the page gets it back into
/// memory; the slot stays for the others, and the frame is kept as a copy of it (the swap cache). That is one
/// page, but one member shows a frame, and the others a slot, and nothing says which slot belongs to a frame.
/// But a fork keeps addresses: the slot is one that another member has at the same address.
///
/// So members note the slots that they have at which address, and keep such frames apart. When all are read,
/// a frame is taken for the slot at its address, and for an ordinary frame where there is none. Members have
/// different slots at one address where some of them have written the page. The sum is the same whichever of
/// these a frame is taken for; to find its group, it is taken for one that several members have, since it was
/// shared as well, and among those for the one with the lowest number. That does not depend on the order in
/// which slots are noted.
///
/// The frame may also be the copy of a slot that nobody has any more, because all others have written the
/// page since: then one page is missing.
///
/// Memory: 4 bytes for each address with a slot, and about 70 where there are different ones.
class SwapCache {
  public:
    /// Notes the slot that an address space has for a page, given by its address in pages. Once for each
    /// address space. From any thread.
    void noteSlot(std::uint64_t page, std::uint64_t slot);

    /// Notes a frame that may be the copy of a slot. From any thread.
    void noteFrame(Lineages::Member member, std::uint64_t page, std::uint64_t frame);

    /// Has the members hold what their kept frames turned out to be. When all are read.
    void settle(Lineages& lineages);

  private:
    struct KeptFrame {
        Lineages::Member member;
        std::uint64_t page;
        std::uint64_t frame;
    };

    /// The different slots of one address.
    class Slots {
      public:
        void add(std::uint64_t slot, bool isOfSeveral);
        /// The one that a frame is taken for.
        [[nodiscard]] std::uint64_t chosen() const;

      private:
        static constexpr std::size_t kMost = 4;

        std::uint64_t _lowest = UINT64_MAX;
        std::array<std::uint64_t, kMost> _slots{};
        std::array<bool, kMost> _isOfSeveral{};
        std::uint32_t _count = 0;  ///< Greater than kMost where there are too many: the lowest one is taken.
    };

    [[nodiscard]] std::optional<std::uint64_t> _slotFor(std::uint64_t page);

    /// By address in pages: 0, the only slot there, or where to look.
    FrameTable _slots;
    std::mutex _mutex;
    boost::unordered_flat_map<std::uint64_t, Slots> _different;  ///< By address in pages.
    std::vector<KeptFrame> _frames;
};

}  // namespace zorbel
