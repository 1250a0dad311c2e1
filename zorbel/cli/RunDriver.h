#pragma once

namespace zorbel {

class Platform;

/// One run of the tool: parse, select, gather, report. Returns 0 after a complete run, even if single
/// processes failed, and 1 after an error that ended the run.
int run(int argc, char* const argv[], Platform& platform);

}  // namespace zorbel
