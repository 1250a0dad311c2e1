#include "base/Diagnostics.h"

namespace zorbel {

void StreamDiagnostics::report(std::string_view message) {
    if (_stream == nullptr) return;
    std::string text(message);
    text += '\n';
    const std::lock_guard lock(_mutex);
    std::fwrite(text.data(), 1, text.size(),
                _stream);  // One write, so that output of other processes can't split it.
    std::fflush(_stream);
}

}  // namespace zorbel
