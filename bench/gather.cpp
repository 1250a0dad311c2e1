// Gathers all processes of the machine as zorbel -a does, and prints nothing; with --without-images, does not
// ask what programs and libraries they have loaded. The difference is what names cost.

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
