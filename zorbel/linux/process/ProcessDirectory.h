#pragma once

#include <functional>
#include <string>

#include "base/Files.h"

namespace zorbel {

/// Calls visit with the place of the process's own files, then with that of each thread's, until it returns
/// true. Returns whether it has. A place is "" or "task/TID/", relative to the /proc directory of the
/// process.
///
/// The first thread of a process may end before the others. Then the process's own files show a zombie
/// without memory, and the files of another thread show everything.
bool anyTask(int processDirectory, const std::function<bool(const std::string& place)>& visit);

/// Removes the " (deleted)" that the kernel appends to the path of a deleted file.
std::string withoutDeletedMark(std::string path);

/// Path of the program that a process runs, from its link "exe". An error if that can't be read: for a kernel
/// thread, without permission, or if the first thread has ended.
Result<std::string> pathOfProgram(int processDirectory, const std::string& place = "");

}  // namespace zorbel
