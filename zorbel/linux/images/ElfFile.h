#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace zorbel {

/// A loaded segment of an ELF file, in bytes. Addresses are relative to the image's load address.
struct ElfSegment {
    std::uint64_t offset = 0;  ///< In the file.
    std::uint64_t address = 0;
    std::uint64_t fileSize = 0;
    std::uint64_t memorySize = 0;  ///< Including zeroed data, which is not in the file.
    bool isWritable = false;
    bool isExecutable = false;

    [[nodiscard]] std::uint64_t end() const { return address + memorySize; }
};

/// How an ELF program or library is laid out in memory.
struct ElfLayout {
    std::vector<ElfSegment> segments;  ///< In ascending order and disjoint; none is empty.
    /// The part that becomes read-only after relocation; empty if there is none.
    std::uint64_t relroStart = 0;
    std::uint64_t relroEnd = 0;
    bool isGo = false;  ///< Has a note with the build id of the Go linker.
};

/// Reads the program headers of an ELF file of any word size and byte order. Nothing if it is no ELF program
/// or library, or if its headers are inconsistent.
std::optional<ElfLayout> readElfLayout(int fd);

}  // namespace zorbel
