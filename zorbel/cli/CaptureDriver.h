#pragma once

namespace zorbel {

class Platform;

/// One run of zorbel-capture: parse, select, gather, save. Returns 0 if all requested processes were saved,
/// else 1. With --all, processes that can't be opened do not count.
int capture(int argc, char* const argv[], Platform& platform);

}  // namespace zorbel
