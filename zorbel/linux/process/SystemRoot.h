#pragma once

#include <cstdint>
#include <string>

namespace zorbel {

/// Where /proc and /sys are. A test may use folders with text files instead.
struct SystemRoot {
    std::string proc = "/proc";
    std::string sys = "/sys";

    /// Path of a process's /proc directory, or of a file in it ("/stat").
    [[nodiscard]] std::string ofProcess(std::int32_t pid, const char* file = "") const {
        return proc + "/" + std::to_string(pid) + file;
    }
};

}  // namespace zorbel
