// Layouts of ELF files, correct and corrupt.

#include "linux/images/ElfFile.h"

#include <gelf.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "base/Files.h"

namespace zorbel::test {
namespace {

using namespace testing;

template <typename Value>
std::string bytesOf(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::optional<ElfLayout> layoutOf(const std::string& content, std::uint64_t at = 0, std::string more = {}) {
    const FileDescriptor file(memfd_create("elf", MFD_CLOEXEC));
    pwrite(file.get(), content.data(), content.size(), 0);
    if (!more.empty()) pwrite(file.get(), more.data(), more.size(), static_cast<off_t>(at));
    return readElfLayout(file.get());
}

/// Code, and data with two pages that become read-only. Tests change the headers.
class ElfFileTest : public Test {
  protected:
    std::optional<ElfLayout> layout() const {
        std::string table;
        for (const Elf64_Phdr& row : rows) table += bytesOf(row);
        return layoutOf(bytesOf(header), header.e_phoff, table);
    }

    Elf64_Ehdr header = {{0x7F, 'E', 'L', 'F', ELFCLASS64, ELFDATA2LSB, EV_CURRENT},
                         ET_DYN,
                         EM_X86_64,
                         EV_CURRENT,
                         0,
                         sizeof(Elf64_Ehdr),
                         0,
                         0,
                         sizeof(Elf64_Ehdr),
                         sizeof(Elf64_Phdr),
                         3,
                         0,
                         0,
                         0};
    std::vector<Elf64_Phdr> rows = {{PT_LOAD, PF_R | PF_X, 0, 0, 0, 0x5000, 0x5000, 0x1000},
                                    {PT_LOAD, PF_R | PF_W, 0x5000, 0x6000, 0, 0x3000, 0x9000, 0x1000},
                                    {PT_GNU_RELRO, PF_R, 0x5000, 0x6000, 0, 0x2000, 0x2000, 1}};
};

MATCHER_P(IsWhatIsExpected, code, "") {
    const auto& segments = arg.segments;
    return segments.size() == 2 && segments[0].isExecutable == code && !segments[0].isWritable &&
           segments[0].end() == 0x5000 && segments[1].isWritable && !segments[1].isExecutable &&
           segments[1].offset == 0x5000 && segments[1].address == 0x6000 && segments[1].fileSize == 0x3000 &&
           segments[1].memorySize == 0x9000 && arg.relroStart == 0x6000 && arg.relroEnd == 0x8000;
}

TEST_F(ElfFileTest, AcceptsHeadersAtAnyOffset) {
    EXPECT_THAT(layout(), Optional(IsWhatIsExpected(true)));
    header.e_phoff = 0x12345678;  // Tools that edit files append a new table.
    EXPECT_THAT(layout(), Optional(IsWhatIsExpected(true)));
    header.e_shoff = 64;  // Claims sections that do not exist.
    header.e_shentsize = sizeof(Elf64_Shdr);
    EXPECT_THAT(layout(), Optional(IsWhatIsExpected(true)));
}

TEST_F(ElfFileTest, AcceptsAnyWordSizeAndByteOrder) {
    Elf32_Ehdr narrow{};
    std::memcpy(narrow.e_ident, header.e_ident, sizeof narrow.e_ident);
    narrow.e_ident[EI_CLASS] = ELFCLASS32;
    narrow.e_type = ET_EXEC;
    narrow.e_version = EV_CURRENT;
    narrow.e_phoff = narrow.e_ehsize = sizeof narrow;
    narrow.e_phentsize = sizeof(Elf32_Phdr);
    narrow.e_phnum = 3;
    std::vector<Elf32_Phdr> table;
    for (const Elf64_Phdr& row : rows)
        table.push_back({row.p_type, static_cast<Elf32_Off>(row.p_offset),
                         static_cast<Elf32_Addr>(row.p_vaddr), 0, static_cast<Elf32_Word>(row.p_filesz),
                         static_cast<Elf32_Word>(row.p_memsz), row.p_flags, 0});
    const auto encoded = [](void* data, std::size_t size, Elf_Type type, unsigned char order) {
        std::string bytes(size, '\0');
        Elf_Data from{data, type, EV_CURRENT, size, 0, 0};
        Elf_Data to{bytes.data(), type, EV_CURRENT, size, 0, 0};
        elf_version(EV_CURRENT);
        EXPECT_NE(elf32_xlatetof(&to, &from, order), nullptr);
        return bytes;
    };
    for (const auto order : {std::uint8_t{ELFDATA2LSB}, std::uint8_t{ELFDATA2MSB}}) {
        narrow.e_ident[EI_DATA] = order;
        const std::string content = encoded(&narrow, sizeof narrow, ELF_T_EHDR, order) +
                                    encoded(table.data(), table.size() * sizeof table[0], ELF_T_PHDR, order);
        EXPECT_THAT(layoutOf(content), Optional(IsWhatIsExpected(true)));
    }
}

TEST_F(ElfFileTest, RejectsInconsistentHeaders) {
    const auto isRefused = [this](const std::function<void()>& spoil) {
        const auto intact = std::pair(header, rows);
        spoil();
        const bool refused = !layout();
        std::tie(header, rows) = intact;
        return refused;
    };
    EXPECT_FALSE(isRefused([] {}));
    EXPECT_TRUE(isRefused([&] { header.e_ident[0] = '!'; }));
    EXPECT_TRUE(isRefused([&] { header.e_ident[EI_CLASS] = 7; }));
    EXPECT_TRUE(isRefused([&] { header.e_type = ET_CORE; }));
    EXPECT_TRUE(isRefused([&] { header.e_phnum = 0xFFFF; }));
    EXPECT_TRUE(isRefused([&] { header.e_phnum = 4; }));  // More than the file has.
    EXPECT_TRUE(isRefused([&] { header.e_phnum = 0; }));
    EXPECT_TRUE(isRefused([&] { std::swap(rows[0], rows[1]); }));
    EXPECT_TRUE(isRefused([&] { rows[0].p_memsz = 0x6001; }));
    EXPECT_TRUE(isRefused([&] { rows[1].p_memsz = ~0ULL; }));
    EXPECT_TRUE(isRefused([&] { rows[1].p_filesz = 0x9001; }));
    for (const std::string text : {"", "\x7F", "#!/bin/sh\n",
                                   "\x7F"
                                   "ELF"})
        EXPECT_FALSE(layoutOf(text));
}

}  // namespace
}  // namespace zorbel::test
