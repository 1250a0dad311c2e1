#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "base/Name.h"

namespace zorbel {

/// A handle on the address space of one process, good for as long as the platform object lives and for that
/// one process only: a later process with the same pid is never taken for it.
using TaskName = std::uint32_t;
inline constexpr TaskName kTaskNull = 0;
inline constexpr TaskName kTaskDead = 0xFFFFFFFF;  ///< Of a process that is gone.

/// One segment of a loaded image: where it lies in the task, in bytes, and its name, such as "__TEXT".
struct SymbolSegment {
    std::uint64_t location = 0;
    std::uint64_t length = 0;
    Name name;
};

/// A loaded image: the path of its file, symbolic links resolved and fit to be printed, and its segments.
struct SymbolOwner {
    Name path;
    std::span<const SymbolSegment> segments;
};

/// A place in the source of a program.
struct SourceLocation {
    std::string path;
    unsigned line = 0;
};

/// Tells what a machine knows of programs and libraries, and of its kernel.
class Symbolicator {
  public:
    Symbolicator() = default;
    Symbolicator(const Symbolicator&) = delete;
    Symbolicator& operator=(const Symbolicator&) = delete;
    virtual ~Symbolicator() = default;

    /// Calls the consumer for each image that the task has loaded at present, in no particular order. An
    /// image that nothing can be found out about is left out. Called from the worker that gathers the task,
    /// before it looks at regions.
    virtual void forEachSymbolOwner(TaskName task,
                                    const std::function<void(const SymbolOwner&)>& consume) = 0;

    /// The symbol of the running kernel that holds the address; nothing when there is none. Called, as the
    /// next one, from the worker that gathers the kernel, while the kernel's account is lent.
    virtual std::optional<std::string> nameOfKernelSymbol(std::uint64_t address) = 0;

    /// Where in its source the kernel has the address; nothing when that is not known.
    virtual std::optional<SourceLocation> sourceOfKernelAddress(std::uint64_t address) = 0;
};

}  // namespace zorbel
