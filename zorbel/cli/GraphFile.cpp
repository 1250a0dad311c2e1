#include "cli/GraphFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace zorbel {

namespace {

/// Holds all signals back while there is something to be cleaned up. That a file may not grow as large is an
/// error like any other, and no signal.
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

/// A machine in need may not live long enough to write a file later on: a directory does not either. 0 or an
/// errno.
int synchronizeDirectory(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno == EACCES ? 0 : errno;  // One may be allowed to write there only.
    const int error = fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
    close(fd);
    return error;
}

/// Writes to an open file, and closes it. 0 or an errno.
int writeTo(int fd, const MemoryGraph& graph) {
    std::FILE* file = fdopen(fd, "w");
    if (file == nullptr) return errno;
    writeMemoryGraph(file, graph);
    int error = 0;
    if (std::fflush(file) != 0 || std::ferror(file) != 0 || fsync(fd) != 0) error = errno;
    if (std::fclose(file) != 0 && error == 0) error = errno;
    return error;
}

/// Gives a file its name. 0 or an errno.
int publish(const char* temporary, const char* path, bool replace) {
    if (replace) {
        struct stat there {};
        if (lstat(path, &there) == 0 && !S_ISREG(there.st_mode))
            return S_ISDIR(there.st_mode) ? EISDIR : EEXIST;
        return rename(temporary, path) == 0 ? 0 : errno;
    }
    if (renameat2(AT_FDCWD, temporary, AT_FDCWD, path, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // Not every file system can do that; a link never replaces anything either.
    if (link(temporary, path) != 0) return errno;
    unlink(temporary);
    return 0;
}

}  // namespace

int saveGraph(const MemoryGraph& graph, const std::string& path, bool replace) {
    const SignalsHeldBack heldBack;
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    std::string temporary = directory + ".zorbel-capture-XXXXXX";
    const mode_t before = umask(S_IRWXG | S_IRWXO);  // For its owner only, but for its owner in any case.
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    umask(before);
    if (fd < 0) return errno;
    int error = writeTo(fd, graph);
    if (error == 0) error = publish(temporary.c_str(), path.c_str(), replace);
    if (error != 0) {
        unlink(temporary.c_str());
        return error;
    }
    return synchronizeDirectory(directory.empty() ? "." : directory);
}

}  // namespace zorbel
