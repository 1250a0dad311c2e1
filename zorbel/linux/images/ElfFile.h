#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace zorbel {

/// A part of an ELF file that is loaded, in bytes. Addresses count from the image's load address.
struct ElfSegment {
    std::uint64_t offset = 0;  ///< In the file.
    std::uint64_t address = 0;
    std::uint64_t fileSize = 0;
    std::uint64_t memorySize = 0;  ///< With the zeroed data behind what the file holds.
    bool isWritable = false;
    bool isExecutable = false;

    [[nodiscard]] std::uint64_t end() const { return address + memorySize; }
};

/// How an ELF program or library is laid out in memory.
struct ElfLayout {
    std::vector<ElfSegment> segments;  ///< In ascending order and disjoint; none is empty.
    /// What is made read-only once it is relocated; empty where there is no such part.
    std::uint64_t relroStart = 0;
    std::uint64_t relroEnd = 0;
};

/// Reads the program headers of an ELF file of either word size and byte order. Nothing when the file is
/// none, is no program or library, or contradicts itself.
std::optional<ElfLayout> readElfLayout(int fd);

}  // namespace zorbel
