#pragma once

namespace zorbel {

class Platform;

/// Whether purgeable and other physical memory is broken down by what the kernel calls dirty: a setting of
/// the tool's own process that the platform keeps. Read anew on each call. A failed read is reported on
/// standard error and counts as off; a system without the setting is silently off.
bool breakDownPhysZorbel(Platform& platform);

/// Sets the mode; a failure is reported on standard error, save on a system without the setting.
void setBreakDownPhysZorbel(Platform& platform, bool enabled);

}  // namespace zorbel
