#include "memgraph/GraphFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "base/Files.h"

namespace zorbel {

namespace {

/// Holds back all signals, so that no file is left half written when one ends the program. Growing beyond the
/// limit of a file's size becomes an error of the write instead of a signal.
class SignalsHeldBack {
  public:
    SignalsHeldBack() : _whenTooLarge(std::signal(SIGXFSZ, SIG_IGN)) {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &_before);
    }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    ~SignalsHeldBack() {
        sigprocmask(SIG_SETMASK, &_before, nullptr);
        std::signal(SIGXFSZ, _whenTooLarge);
    }

  private:
    void (*_whenTooLarge)(int);
    sigset_t _before{};
};

/// Writes a new name in a directory to the disk: the machine may have to be restarted right after. A
/// directory that we may write to but not read can't be synchronized.
Result<void> synchronizeDirectory(const std::string& path) {
    const FileDescriptor directory = openDirectory(path.c_str(), AT_FDCWD);
    if (!directory.isOpen() && errno == EACCES) return {};
    if (!directory.isOpen()) return Error::last();
    if (fsync(directory.get()) == 0 || errno == EINVAL) return {};
    return Error::last();
}

/// Writes to an open file, and closes it.
Result<void> writeTo(int fd, const MemoryGraph& graph) {
    std::FILE* file = fdopen(fd, "w");
    if (file == nullptr) {
        const Error error = Error::last();
        close(fd);
        return error;
    }
    writeMemoryGraph(file, graph);
    Result<void> result;
    if (std::fflush(file) != 0 || std::ferror(file) != 0 || fsync(fd) != 0) result = Error::last();
    if (std::fclose(file) != 0 && result) result = Error::last();
    return result;
}

/// Gives a file its name.
Result<void> publish(const char* temporary, const char* path, bool replace) {
    if (replace) {
        struct stat there {};
        if (lstat(path, &there) == 0 && !S_ISREG(there.st_mode))
            return Error::ofErrno(S_ISDIR(there.st_mode) ? EISDIR : EEXIST);
        if (rename(temporary, path) == 0) return {};
        return Error::last();
    }
    if (renameat2(AT_FDCWD, temporary, AT_FDCWD, path, RENAME_NOREPLACE) == 0) return {};
    if (errno != EINVAL && errno != ENOSYS) return Error::last();
    // Not every file system can rename so. A link never replaces anything either.
    if (link(temporary, path) != 0) return Error::last();
    unlink(temporary);
    return {};
}

}  // namespace

Result<void> saveGraph(const MemoryGraph& graph, const std::string& path, bool replace) {
    const SignalsHeldBack heldBack;
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    std::string temporary = directory + ".zorbel-capture-XXXXXX";
    // mkostemp creates files with mode 0600, less what the umask takes away: its owner must be able to read
    // it.
    const mode_t before = umask(S_IRWXG | S_IRWXO);
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    const Error whyNoFile = Error::last();
    umask(before);
    if (fd < 0) return whyNoFile;
    Result<void> result = writeTo(fd, graph);
    if (result) result = publish(temporary.c_str(), path.c_str(), replace);
    if (!result) {
        unlink(temporary.c_str());
        return result;
    }
    return synchronizeDirectory(directory.empty() ? "." : directory);
}

}  // namespace zorbel
