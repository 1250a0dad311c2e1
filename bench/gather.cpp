// Gathers all processes of the machine like zorbel -a, but prints nothing. With --without-images, regions get
// no names of images; the images are still found. The difference is the cost of naming.

#include <cstring>

#include "aggregate/ZBZorbel.h"
#include "linux/LinuxPlatform.h"

namespace {

class WithoutImages : public zorbel::LinuxPlatform {
  public:
    using zorbel::LinuxPlatform::LinuxPlatform;

    void forEachSymbolOwner(zorbel::TaskName /*task*/,
                            const std::function<void(const zorbel::SymbolOwner&)>& /*consume*/) override {}
};

void gather(zorbel::Platform& platform) {
    auto targets = zorbel::ZBProcess::allProcessesExcludingPids(platform, {});
    zorbel::ZBZorbel(platform, *std::move(targets)).gatherData();
}

}  // namespace

int main(int argc, char* argv[]) {
    zorbel::StreamDiagnostics diagnostics(stderr);
    if (argc > 1 && std::strcmp(argv[1], "--without-images") == 0) {
        WithoutImages platform(diagnostics);
        gather(platform);
    } else {
        zorbel::LinuxPlatform platform(diagnostics);
        gather(platform);
    }
}
