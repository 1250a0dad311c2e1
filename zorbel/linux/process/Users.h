#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace zorbel {

/// The names of this machine's users, from /etc/passwd: a program that is linked statically can't ask the C
/// library, which would load modules for other lists.
class Users {
  public:
    explicit Users(std::string path = "/etc/passwd") : _path(std::move(path)) {}

    /// Printable; empty if the user is not in the list. The file is read at the first call. From any thread.
    std::string nameOf(std::uint32_t uid);

  private:
    std::string _path;
    std::once_flag _isRead;
    std::unordered_map<std::uint32_t, std::string> _names;
};

}  // namespace zorbel
