#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "linux/pages/FrameFlags.h"
#include "linux/pages/FrameTable.h"
#include "linux/pages/Lineages.h"

namespace zorbel {

/// Pages of a family of processes that some of them see in memory and others in swap.
///
/// After a fork and a swap-out, all members hold the same slot. One that touches the page gets it back into
/// memory; the slot stays for the others, and the frame is kept as a copy of it (the swap cache). That is one
/// page, but one member shows a frame, and the others a slot, and nothing says which slot belongs to a frame.
/// But a fork keeps addresses: the slot is the one that another member has at the same address.
///
/// So members note the slots that they have at which address, and keep frames of the swap cache apart. When
/// all are read, each such frame is taken for the slot at its address, and for an ordinary frame where there
/// is none.
class SwapCache {
  public:
    /// Notes the slot of a page, given by its address in pages. From any thread.
    void noteSlot(std::uint64_t page, std::uint64_t slot);

    /// Notes a frame of the swap cache. From any thread.
    void noteFrame(Lineages::Member member, std::uint64_t page, std::uint64_t frame);

    /// Has the members hold what their kept frames turned out to be. When all are read.
    void settle(Lineages& lineages);

  private:
    struct KeptFrame {
        Lineages::Member member;
        std::uint64_t page;
        std::uint64_t frame;
    };

    FrameTable _slots;  ///< By address in pages: a slot in 32 bits, plus 1.
    std::mutex _mutex;
    std::vector<KeptFrame> _frames;
};

}  // namespace zorbel
