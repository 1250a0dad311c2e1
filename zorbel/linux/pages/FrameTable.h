#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zorbel {

/// A 32-bit word for each number below 2^36, all 0 at first: frames of physical memory (256 TiB of small
/// pages), slots of swap as PageWord numbers them (32 areas of up to 8 TiB), or pages of an address space
/// (256 TiB, which is all that a process has unless it asks for more). Several threads may use it at once.
///
/// The words are in pieces of 64, made when they are first needed, below three levels of directories. A
/// look-up is four loads and no search. Memory: 4 bytes for each number where most of them are used, and at
/// most 270 where they are scattered, as the frames of small processes are; and 8 KiB for each directory.
class FrameTable {
  public:
    using Word = std::atomic<std::uint32_t>;

    /// So many words, from a multiple of that on, are in one piece.
    static constexpr std::uint64_t kTogether = 64;

    /// The word of a number. Higher bits of the number are cut off: two that differ only there are taken for
    /// one.
    Word& at(std::uint64_t number) { return from(number).front(); }
    /// The word of a number, and those of the next ones that are in the same piece.
    std::span<Word> from(std::uint64_t number);

  private:
    static constexpr unsigned kPieceBits = std::bit_width(kTogether) - 1;
    static constexpr unsigned kDirectoryBits = 10;

    struct Piece {
        std::array<Word, std::size_t{1} << kPieceBits> words{};
    };
    template <typename Entry>
    struct Directory {
        std::array<std::atomic<Entry*>, std::size_t{1} << kDirectoryBits> entries{};

        Directory() = default;
        Directory(const Directory&) = delete;
        Directory& operator=(const Directory&) = delete;
        ~Directory() {
            for (const auto& entry : entries) delete entry.load(std::memory_order_relaxed);
        }
    };

    Directory<Directory<Directory<Piece>>> _root;
};

}  // namespace zorbel
