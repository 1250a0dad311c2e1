#include "linux/pages/ResidentMemory.h"

#include <unistd.h>

#include "linux/process/PageSize.h"

namespace zorbel {

bool ResidentMemory::read(std::uint64_t address, std::span<std::byte> buffer) {
    const std::uint64_t first = address & ~(pageSize() - 1);
    const std::uint64_t last = (address + buffer.size() - 1) & ~(pageSize() - 1);
    bool isPresent = true;
    const int error = _tables.forEachWord(first, last + pageSize(),
                                          [&](std::uint64_t, std::span<const std::uint64_t> words) {
                                              for (const std::uint64_t word : words)
                                                  isPresent = isPresent && PageWord(word).isPresent();
                                          });
    if (error != 0 || !isPresent) return false;
    if (!_memory.isOpen()) _memory = openForReading("mem", _processDirectory);
    return pread(_memory.get(), buffer.data(), buffer.size(), static_cast<off_t>(address)) ==
           static_cast<ssize_t>(buffer.size());
}

}  // namespace zorbel
