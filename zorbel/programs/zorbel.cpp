#include <cstdio>

#include "base/Allocation.h"
#include "cli/RunDriver.h"
#include "linux/LinuxPlatform.h"

int main(int argc, char* argv[]) {
    zorbel::setUpAllocation();
    zorbel::StreamDiagnostics diagnostics(stderr);
    zorbel::LinuxPlatform platform(diagnostics);
    return zorbel::run(argc, argv, platform);
}
