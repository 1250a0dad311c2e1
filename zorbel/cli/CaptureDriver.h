#pragma once

namespace zorbel {

class Platform;

/// One run of zorbel-capture on a machine: parse, select, gather, save. Returns the exit status: 0 when all
/// was saved that was asked for, 1 otherwise. Of all processes of a machine it takes those that it can.
int capture(int argc, char* const argv[], Platform& platform);

}  // namespace zorbel
