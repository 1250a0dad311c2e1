#pragma once

#include <cstdint>
#include <string>

#include "base/Files.h"
#include "corpse/CorpseArguments.h"
#include "linux/process/SystemRoot.h"

namespace zorbel {

/// A process that the kernel keeps while its core is dumped, seen through its /proc directory.
class DyingProcess {
  public:
    /// An error when there is no such process, or when no core of it is being dumped: another process may
    /// have the pid by now, where the kernel does not wait for its handler.
    static Result<DyingProcess> open(std::int32_t pid, const SystemRoot& root = {});

    /// Descriptor of the directory.
    [[nodiscard]] int directory() const { return _directory.get(); }

    /// File name of the program, fit to be printed; empty where that can't be read.
    [[nodiscard]] std::string programName() const;

    /// CorpseFlags of the process.
    [[nodiscard]] std::uint32_t flags() const;

  private:
    explicit DyingProcess(FileDescriptor directory) : _directory(std::move(directory)) {}

    FileDescriptor _directory;
};

}  // namespace zorbel
