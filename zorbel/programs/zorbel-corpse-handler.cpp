// The kernel starts this program for each process that a signal ends with a core dump.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/Error.h"
#include "corpse/CorpseHandler.h"

namespace {

/// The kernel does not open standard output and error. Our messages and zorbel's go to the kernel log. The
/// descriptors are closed again when a next handler starts.
void openStandardStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) >= 0) continue;
        if (fd == STDIN_FILENO || open("/dev/kmsg", O_WRONLY | O_CLOEXEC) < 0)
            open("/dev/null", O_RDWR | O_CLOEXEC);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    openStandardStreams();
    zorbel::StreamDiagnostics standardError(stderr);
    zorbel::PrefixedDiagnostics diagnostics(standardError, "zorbel-corpse-handler: ");
    zorbel::CorpseSettings settings;
    settings.zorbel = zorbel::defaultZorbel();
    zorbel::Crash crash;
    const auto status = zorbel::parseCorpseArguments(argc, argv, diagnostics, settings, crash);
    if (!status) zorbel::superviseReport(settings, crash, diagnostics);
    if (settings.then != nullptr) {
        // The core image is still complete on standard input: nothing has read from it.
        execv(settings.then[0], settings.then);
        diagnostics.report(zorbel::Error::last().on(settings.then[0]).description);
        return EXIT_FAILURE;
    }
    // Nobody reads the image: the kernel stops writing it when we exit. Reading it would bring all of the
    // process's memory back from swap.
    return status.value_or(EXIT_SUCCESS);
}
