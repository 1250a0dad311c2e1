#include "linux/images/ElfFile.h"

#include <gelf.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>

namespace zorbel {

namespace {

/// Linkers write about 10 to 25.
constexpr std::size_t kMostHeaders = 128;

struct ElfEnd {
    void operator()(Elf* elf) const { elf_end(elf); }
};

GElf_Phdr widened(const Elf32_Phdr& row) {
    return {row.p_type,  row.p_flags,  row.p_offset, row.p_vaddr,
            row.p_paddr, row.p_filesz, row.p_memsz,  row.p_align};
}

/// Converts the table to the byte order of this machine.
template <typename Row>
std::vector<Row> translated(Elf* elf, std::vector<char>& table, unsigned char byteOrder) {
    std::vector<Row> rows(table.size() / sizeof(Row));
    Elf_Data from{};
    from.d_buf = table.data();
    from.d_type = ELF_T_PHDR;
    from.d_size = table.size();
    from.d_version = EV_CURRENT;
    Elf_Data to = from;
    to.d_buf = rows.data();
    if (gelf_xlatetom(elf, &to, &from, byteOrder) == nullptr) rows.clear();
    return rows;
}

/// The program headers; empty on any error. Reads only the file header and the program headers, and rejects
/// more than kMostHeaders: the file is untrusted input.
std::vector<GElf_Phdr> programHeaders(int fd) {
    static const unsigned kVersion = elf_version(EV_CURRENT);
    alignas(GElf_Ehdr) std::array<char, sizeof(GElf_Ehdr)> start{};
    const ssize_t length = pread(fd, start.data(), start.size(), 0);
    if (kVersion == EV_NONE || length <= 0) return {};
    const std::unique_ptr<Elf, ElfEnd> elf(elf_memory(start.data(), static_cast<std::size_t>(length)));
    GElf_Ehdr header{};
    if (!elf || gelf_getehdr(elf.get(), &header) == nullptr) return {};
    if ((header.e_type != ET_EXEC && header.e_type != ET_DYN) || header.e_phnum > kMostHeaders) return {};
    const std::size_t size = gelf_fsize(elf.get(), ELF_T_PHDR, header.e_phnum, EV_CURRENT);
    std::vector<char> table(size);
    const ssize_t count = pread(fd, table.data(), size, static_cast<off_t>(header.e_phoff));
    if (size == 0 || count != static_cast<ssize_t>(size)) return {};
    const unsigned char byteOrder = header.e_ident[EI_DATA];
    if (header.e_ident[EI_CLASS] == ELFCLASS64) return translated<GElf_Phdr>(elf.get(), table, byteOrder);
    std::vector<GElf_Phdr> rows;
    for (const Elf32_Phdr& row : translated<Elf32_Phdr>(elf.get(), table, byteOrder))
        rows.push_back(widened(row));
    return rows;
}

/// Whether the notes in a part of the file have one of Go's linker: owner "Go", type 4. Only the first notes
/// are looked at; all linkers write few and short ones.
bool hasGoNote(int fd, const GElf_Phdr& notes) {
    constexpr std::uint32_t kBuildId = 4;
    alignas(GElf_Nhdr) std::array<char, 1024> text{};
    const std::size_t wanted = std::min<std::size_t>(notes.p_filesz, text.size());
    const ssize_t length = pread(fd, text.data(), wanted, static_cast<off_t>(notes.p_offset));
    const auto aligned = [](std::size_t size) { return (size + 3) & ~std::size_t{3}; };
    for (std::size_t at = 0; length > 0 && at + sizeof(GElf_Nhdr) <= static_cast<std::size_t>(length);) {
        GElf_Nhdr note{};
        std::memcpy(&note, text.data() + at, sizeof note);
        const std::string_view rest(text.data() + at + sizeof note,
                                    static_cast<std::size_t>(length) - at - sizeof note);
        if (note.n_type == kBuildId && note.n_namesz == 4 && rest.starts_with(std::string_view("Go\0\0", 4)))
            return true;
        at += sizeof note + aligned(note.n_namesz) + aligned(note.n_descsz);
    }
    return false;
}

/// Whether the segments are in ascending order, disjoint and without overflow.
bool isOrdered(const std::vector<ElfSegment>& segments) {
    std::uint64_t end = 0;
    for (const ElfSegment& segment : segments) {
        if (segment.address < end || segment.end() <= segment.address) return false;
        if (segment.offset + segment.fileSize < segment.offset || segment.fileSize > segment.memorySize)
            return false;
        end = segment.end();
    }
    return !segments.empty();
}

}  // namespace

std::optional<ElfLayout> readElfLayout(int fd) {
    ElfLayout layout;
    for (const GElf_Phdr& row : programHeaders(fd)) {
        if (row.p_type == PT_GNU_RELRO && row.p_vaddr + row.p_memsz > row.p_vaddr) {
            layout.relroStart = row.p_vaddr;
            layout.relroEnd = row.p_vaddr + row.p_memsz;
        }
        if (row.p_type == PT_NOTE) layout.isGo = layout.isGo || hasGoNote(fd, row);
        if (row.p_type != PT_LOAD || row.p_memsz == 0) continue;
        layout.segments.push_back({row.p_offset, row.p_vaddr, row.p_filesz, row.p_memsz,
                                   (row.p_flags & PF_W) != 0, (row.p_flags & PF_X) != 0});
    }
    if (!isOrdered(layout.segments)) return std::nullopt;
    return layout;
}

}  // namespace zorbel
