// The program that the kernel starts for each process that a signal ends with a core dump.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/Error.h"
#include "corpse/CorpseHandler.h"

namespace {

/// The kernel opens no standard output and error for us. Our messages and those of zorbel go to its log; a
/// handler that runs after us finds the streams closed again.
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
        // Nobody has read from the image: it is still all there on standard input.
        execv(settings.then[0], settings.then);
        diagnostics.report(zorbel::Error::last().on(settings.then[0]).description);
        return EXIT_FAILURE;
    }
    // Nobody wants the image, and the kernel stops writing it once we are gone. Reading it would make the
    // kernel fetch all of the process's memory from swap.
    return status.value_or(EXIT_SUCCESS);
}
