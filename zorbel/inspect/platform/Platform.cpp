#include "inspect/platform/Platform.h"

#include <cstdio>

namespace zorbel {

void Platform::mach_error(const char* prefix, KernReturn code) const {
    std::fprintf(stderr, "%s: %s\n", prefix, mach_error_string(code).c_str());
}

}  // namespace zorbel
