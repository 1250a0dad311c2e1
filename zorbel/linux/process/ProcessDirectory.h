#pragma once

#include <functional>
#include <string>

#include "base/Files.h"

namespace zorbel {

/// Calls with the place of the files of a process, relative to its /proc directory, and then with those of
/// its threads, until a call returns true; returns whether one has. A place is "" or "task/TID/".
///
/// The first thread of a process may end before the others. The files of the process then show a zombie
/// without memory, and those of another thread show everything.
bool anyTask(int processDirectory, const std::function<bool(const std::string& place)>& visit);

/// A path without the mark that the kernel puts behind the name of a deleted file.
std::string withoutDeletedMark(std::string path);

/// Path of the program that a process runs, from its link "exe"; an error where that can't be read, as for a
/// kernel thread or without the right to. A first thread that has ended has none.
Result<std::string> pathOfProgram(int processDirectory, const std::string& place = "");

}  // namespace zorbel
