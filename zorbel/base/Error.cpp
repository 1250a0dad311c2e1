#include "base/Error.h"

#include <cerrno>
#include <cstring>

namespace zorbel {

Error Error::ofErrno(int code) {
    const char* text = strerrordesc_np(code);  // Thread-safe, unlike strerror.
    return {"POSIXErrorDomain", code, text != nullptr ? text : "Unknown error " + std::to_string(code)};
}

Error Error::last() { return ofErrno(errno); }

Error Error::on(const std::string& subject) const { return {domain, code, subject + ": " + description}; }

}  // namespace zorbel
