// Gathers all processes of the machine as zorbel -a does, and prints nothing; with --without-images, does not
// ask what programs and libraries they have loaded. The difference is what names cost.

#include <cstring>

#include "aggregate/ZBZorbel.h"
#include "inspect/linux/LinuxPlatform.h"

namespace {

class WithoutImages : public zorbel::LinuxPlatform {
  public:
    void forEachSymbolOwner(zorbel::TaskName /*task*/,
                            const std::function<void(const zorbel::SymbolOwner&)>& /*consume*/) override {}
};

void gather(zorbel::Platform& platform) {
    auto targets = zorbel::ZBProcess::allProcessesExcludingPids(platform, {});
    std::vector<std::unique_ptr<zorbel::ZBProcess>> processes;
    for (auto& [pid, process] : *targets) processes.push_back(std::move(process));
    zorbel::ZBZorbel(std::move(processes)).gatherData();
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc > 1 && std::strcmp(argv[1], "--without-images") == 0) {
        WithoutImages platform;
        gather(platform);
    } else {
        zorbel::LinuxPlatform platform;
        gather(platform);
    }
}
