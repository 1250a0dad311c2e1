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

/// Blocks all signals, so that none ends the program and leaves a partial file. Ignores SIGXFSZ, so that a
/// file above the size limit is a write error.
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

/// Syncs a directory with a new name, since the machine may restart right afterwards. A directory that we may
/// not read can't be synced, which is no error.
Result<void> synchronizeDirectory(const std::string& path) {
    const FileDescriptor directory = openDirectory(path.c_str(), AT_FDCWD);
    if (!directory.isOpen() && errno == EACCES) return {};
    if (!directory.isOpen()) return Error::last();
    if (fsync(directory.get()) == 0 || errno == EINVAL) return {};
    return Error::last();
}

/// Writes the graph to the open file and closes it.
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

/// Gives the file its final name.
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
    // Some file systems can't rename like that. link() never replaces a file either.
    if (link(temporary, path) != 0) return Error::last();
    unlink(temporary);
    return {};
}

}  // namespace

Result<void> saveGraph(const MemoryGraph& graph, const std::string& path, bool replace) {
    const SignalsHeldBack heldBack;
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    std::string temporary = directory + ".zorbel-capture-XXXXXX";
    // The umask must not remove the owner's right to read from mkostemp's mode 0600.
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
