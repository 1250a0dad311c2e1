#pragma once

#include <string>

#include "base/Diagnostics.h"
#include "corpse/CorpseArguments.h"

namespace zorbel {

/// How a report begins: what crashed, of what, and when.
std::string headlineOf(const Crash& crash, const std::string& program);

/// Has a process of its own write the report on a crash, and waits for it, but not much longer than the
/// settings allow: nobody knows how long a directory on a sick file system may take. What fails is reported;
/// the caller goes on.
void superviseReport(const CorpseSettings& settings, const Crash& crash, Diagnostics& diagnostics);

/// The program in the directory of this one.
std::string defaultZorbel();

}  // namespace zorbel
