#pragma once

#include <string>

#include "base/Diagnostics.h"
#include "corpse/CorpseArguments.h"

namespace zorbel {

/// First line of a report: program, signal and time.
std::string headlineOf(const Crash& crash, const std::string& program);

/// Starts a separate process that writes the report on a crash, and waits for it, little longer than the
/// settings allow: a directory on a faulty file system may block for any time. Reports errors and then
/// returns.
void superviseReport(const CorpseSettings& settings, const Crash& crash, Diagnostics& diagnostics);

/// Path of "zorbel" in the directory of the running program.
std::string defaultZorbel();

}  // namespace zorbel
