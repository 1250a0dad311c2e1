#pragma once

namespace zorbel {

class Platform;

/// Whether breakdown mode is on: dirty is then what the kernel marks as dirty, and purgeable non-volatile
/// memory has separate categories. The platform keeps this setting of the tool's own process; each call reads
/// it again. A failed read is reported as a diagnostic and means off. A system without the setting is off,
/// without a message.
bool breakDownPhysZorbel(Platform& platform);

/// Sets the mode. A failure is reported as a diagnostic, except on a system without the setting.
void setBreakDownPhysZorbel(Platform& platform, bool enabled);

}  // namespace zorbel
