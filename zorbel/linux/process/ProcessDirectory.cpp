#include "linux/process/ProcessDirectory.h"

#include <dirent.h>

#include <memory>

namespace zorbel {

bool anyTask(int processDirectory, const std::function<bool(const std::string& place)>& visit) {
    if (visit("")) return true;
    FileDescriptor threads = openDirectory("task", processDirectory);
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(threads.get()), &closedir);
    if (!directory) return false;
    threads.release();  // closedir() closes it.
    while (const dirent* thread = readdir(directory.get()))
        if (thread->d_name[0] != '.' && visit(std::string("task/") + thread->d_name + "/")) return true;
    return false;
}

std::string withoutDeletedMark(std::string path) {
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    return path;
}

Result<std::string> pathOfProgram(int processDirectory, const std::string& place) {
    auto path = readLink((place + "exe").c_str(), processDirectory);
    if (!path) return path;
    return withoutDeletedMark(*std::move(path));
}

}  // namespace zorbel
