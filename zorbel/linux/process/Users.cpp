#include "linux/process/Users.h"

#include <fcntl.h>

#include "base/Files.h"
#include "base/TextCursor.h"
#include "base/Utf8.h"

namespace zorbel {

std::string Users::nameOf(std::uint32_t uid) {
    std::call_once(_isRead, [this] {
        const auto text = readWholeFile(_path.c_str(), AT_FDCWD);
        for (std::string_view rest = text ? std::string_view(*text) : ""; !rest.empty();) {
            std::string_view line = takeLine(rest);
            const std::string_view name = takeUpTo(line, ':');
            takeUpTo(line, ':');
            if (const auto number = takeNumber(line);
                number && *number <= UINT32_MAX)  // The first of several names for one user counts.
                _names.try_emplace(static_cast<std::uint32_t>(*number), printable(name));
        }
    });
    const auto found = _names.find(uid);
    return found != _names.end() ? found->second : "";
}

}  // namespace zorbel
