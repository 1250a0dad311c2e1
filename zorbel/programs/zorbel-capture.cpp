#include <cstdio>

#include "base/Allocation.h"
#include "cli/CaptureDriver.h"
#include "linux/LinuxPlatform.h"

int main(int argc, char* argv[]) {
    zorbel::setUpAllocation();
    zorbel::StreamDiagnostics diagnostics(stderr);
    zorbel::LinuxPlatform platform(diagnostics);
    return zorbel::capture(argc, argv, platform);
}
