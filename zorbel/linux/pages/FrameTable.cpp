#include "linux/pages/FrameTable.h"

#include <memory>

namespace zorbel {

namespace {

/// What an entry points at, made by the first thread that needs it.
template <typename Made>
Made& madeAt(std::atomic<Made*>& entry) {
    Made* made = entry.load(std::memory_order_acquire);
    if (made != nullptr) return *made;
    auto mine = std::make_unique<Made>();
    if (entry.compare_exchange_strong(made, mine.get(), std::memory_order_acq_rel)) made = mine.release();
    return *made;
}

}  // namespace

std::span<FrameTable::Word> FrameTable::from(std::uint64_t number) {
    const auto indexAt = [number](unsigned shift, unsigned bits) {
        return (number >> shift) & ((std::uint64_t{1} << bits) - 1);
    };
    auto& middle = madeAt(_root.entries[indexAt(kPieceBits + 2 * kDirectoryBits, kDirectoryBits)]);
    auto& directory = madeAt(middle.entries[indexAt(kPieceBits + kDirectoryBits, kDirectoryBits)]);
    Piece& piece = madeAt(directory.entries[indexAt(kPieceBits, kDirectoryBits)]);
    return std::span(piece.words).subspan(indexAt(0, kPieceBits));
}

}  // namespace zorbel
