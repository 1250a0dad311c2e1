#include "cli/CaptureDriver.h"
#include "inspect/linux/LinuxPlatform.h"

int main(int argc, char* argv[]) {
    zorbel::LinuxPlatform platform;
    return zorbel::capture(argc, argv, platform);
}
