#pragma once

#include <cstdint>
#include <string>

namespace zorbel {

/// Where the system shows itself. A test may give a folder of texts in their place.
struct SystemRoot {
    std::string proc = "/proc";
    std::string sys = "/sys";

    /// Path of a file of a process, or of its directory.
    [[nodiscard]] std::string ofProcess(std::int32_t pid, const char* file = "") const {
        return proc + "/" + std::to_string(pid) + file;
    }
};

}  // namespace zorbel
