#pragma once

#include <cstdint>
#include <string>

#include "base/Files.h"
#include "corpse/CorpseArguments.h"
#include "linux/process/SystemRoot.h"

namespace zorbel {

/// A process that the kernel keeps while it dumps its core, read from its /proc directory.
class DyingProcess {
  public:
    /// Fails if there is no such process, or if its core is not being dumped (CoreDumping in
    /// /proc/PID/status): if the kernel does not wait for its handler, another process may already have the
    /// pid.
    static Result<DyingProcess> open(std::int32_t pid, const SystemRoot& root = {});

    /// Descriptor of its /proc directory.
    [[nodiscard]] int directory() const { return _directory.get(); }

    /// File name of the program, printable; empty if it can't be read. From /proc/PID/exe.
    [[nodiscard]] std::string programName() const;

    /// Its CorpseFlags, from /proc/PID/stat.
    [[nodiscard]] std::uint32_t flags() const;

  private:
    explicit DyingProcess(FileDescriptor directory) : _directory(std::move(directory)) {}

    FileDescriptor _directory;
};

}  // namespace zorbel
