#pragma once

#include <cstdint>
#include <span>

#include "base/Files.h"
#include "linux/process/SystemRoot.h"

namespace zorbel {

/// What the kernel says about frames of memory, from /proc/kpageflags. It takes root, and to know frames
/// takes CAP_SYS_ADMIN; no lock of any address space. About 40 ns a frame, and 500 for each call.
class FrameFlags {
  public:
    explicit FrameFlags(const SystemRoot& root);

    /// Otherwise nothing is known: no other question may be asked.
    [[nodiscard]] bool isOpen() const { return _file.isOpen(); }

    /// Whether a frame is kept as a copy of a slot in swap that other page tables may still hold. They can't
    /// if the kernel knows the page to be of one address space only, which it does from Linux 5.19 on: it
    /// learns that when the page is written, keeps it while the page is in swap, and forgets it at a fork.
    [[nodiscard]] bool mayBeCopyOfSlot(std::uint64_t frame) const;

    /// Whether any of the pages, given by their words, may be lazily freed (MADV_FREE). A page that was
    /// written after that looks the same here; only smaps shows the difference.
    [[nodiscard]] bool mayBeLazy(std::span<const std::uint64_t> words) const;

  private:
    [[nodiscard]] bool _read(std::uint64_t frame, std::span<std::uint64_t> flags) const;

    FileDescriptor _file;
};

}  // namespace zorbel
