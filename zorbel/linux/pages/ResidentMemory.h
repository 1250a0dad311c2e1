#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/Files.h"
#include "linux/pages/PageTables.h"

namespace zorbel {

/// Reads from the memory of a process, only where it is in memory: reading anything else would make the
/// process's page a fault, which a file system or a handler in the process would have to serve, perhaps
/// never.
class ResidentMemory {
  public:
    /// Of the process whose /proc directory is given. Its memory is opened when it is first read.
    ResidentMemory(int processDirectory, PageTables& tables)
        : _processDirectory(processDirectory), _tables(tables) {}

    /// Fills the buffer. False if not all of it is in memory, or may not be read. A page that is swapped out
    /// between the question and the reading makes us wait for the swap.
    bool read(std::uint64_t address, std::span<std::byte> buffer);

  private:
    int _processDirectory;
    PageTables& _tables;
    FileDescriptor _memory;
};

}  // namespace zorbel
