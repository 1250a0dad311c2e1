#include <cstdio>

#include "cli/RunDriver.h"
#include "linux/LinuxPlatform.h"

int main(int argc, char* argv[]) {
    zorbel::StreamDiagnostics diagnostics(stderr);
    zorbel::LinuxPlatform platform(diagnostics);
    return zorbel::run(argc, argv, platform);
}
