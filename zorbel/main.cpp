#include "cli/RunDriver.h"
#include "inspect/linux/LinuxPlatform.h"

int main(int argc, char* argv[]) {
    zorbel::LinuxPlatform platform;
    return zorbel::run(argc, argv, platform);
}
