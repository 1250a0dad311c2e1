#include "inspect/BreakDownMode.h"

#include <cerrno>
#include <cstdint>

#include "platform/Platform.h"

namespace zorbel {

namespace {

constexpr const char* kSetting = "vm.self_region_zorbel";

void reportUnlessMissing(Platform& platform, int error, const char* text) {
    if (error != ENOENT) platform.diagnostics().report(Error::ofErrno(error).on(text).description);
}

}  // namespace

bool breakDownPhysZorbel(Platform& platform) {
    std::int32_t value = 0;
    if (const int error = platform.sysctlbyname(kSetting, &value, nullptr)) {
        reportUnlessMissing(platform, error, "Unable to retrieve status of physical zorbel data collection");
        return false;
    }
    return value != 0;
}

void setBreakDownPhysZorbel(Platform& platform, bool enabled) {
    const std::int32_t value = enabled ? 1 : 0;
    if (const int error = platform.sysctlbyname(kSetting, nullptr, &value))
        reportUnlessMissing(platform, error, "Unable to configure physical zorbel data collection");
}

}  // namespace zorbel
