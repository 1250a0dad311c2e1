#pragma once

namespace zorbel {

class Platform;

/// One run of the tool on a machine: parse, select, gather, report. Returns the exit status: 0 after a
/// completed run, even where single processes failed, 1 after an error that ended it.
int run(int argc, char* const argv[], Platform& platform);

}  // namespace zorbel
