#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "base/Name.h"

namespace zorbel {

/// A handle for the address space of one process. Valid as long as the platform object. It never refers to a
/// later process with the same pid.
using TaskName = std::uint32_t;
inline constexpr TaskName kTaskNull = 0;
inline constexpr TaskName kTaskDead = 0xFFFFFFFF;  ///< A process that has gone.

/// A segment of a loaded image: its place in the task, in bytes, and its name, such as "__TEXT".
struct SymbolSegment {
    std::uint64_t location = 0;
    std::uint64_t length = 0;
    Name name;
};

/// A loaded image: its segments, and the path of its file, printable and with symbolic links resolved.
struct SymbolOwner {
    Name path;
    std::span<const SymbolSegment> segments;
};

/// A place in a program's source.
struct SourceLocation {
    std::string path;
    unsigned line = 0;
};

/// Knows the programs and libraries of a machine, and its kernel.
class Symbolicator {
  public:
    Symbolicator() = default;
    Symbolicator(const Symbolicator&) = delete;
    Symbolicator& operator=(const Symbolicator&) = delete;
    virtual ~Symbolicator() = default;

    /// Calls consume for each image that the task has loaded, in any order. Leaves out images about which
    /// nothing is known. Called by the worker that walks the task, before it looks at regions.
    virtual void forEachSymbolOwner(TaskName task,
                                    const std::function<void(const SymbolOwner&)>& consume) = 0;

    /// The symbol of the running kernel that contains the address; nothing if there is none. Called by the
    /// worker that gathers the kernel, while the kernel's account is valid; the same applies to the next
    /// function.
    virtual std::optional<std::string> nameOfKernelSymbol(std::uint64_t address) = 0;

    /// The place of a kernel address in the source; nothing if unknown.
    virtual std::optional<SourceLocation> sourceOfKernelAddress(std::uint64_t address) = 0;
};

}  // namespace zorbel
