#pragma once

#include <memory>
#include <string>

#include "inspect/ZBUserProcess.h"

namespace zorbel {

/// A process that has died and whose memory is kept for us: measured like a live one through a task that was
/// handed over. What the system no longer tells of it is given.
class ZBCorpseProcess : public ZBUserProcess {
  public:
    // Bits of process flags.
    static constexpr std::uint32_t kFlagControllingTerminal = 0x2;
    static constexpr std::uint32_t kFlag64Bit = 0x4;
    static constexpr std::uint32_t kFlagChangedPrivileges = 0x100;
    static constexpr std::uint32_t kFlagSystem = 0x200;
    static constexpr std::uint32_t kFlagExec = 0x4000;
    static constexpr std::uint32_t kFlagThreadDirectory = 0x1000000;

    /// The dirty flags are kProcDirty bits. Null for kTaskNull.
    static std::unique_ptr<ZBCorpseProcess> processWithCorpse(Platform& platform, TaskName task,
                                                              std::int32_t pid, const std::string& name,
                                                              std::uint32_t dirtyFlags,
                                                              std::uint32_t procFlags);

  protected:
    explicit ZBCorpseProcess(Platform& platform) : ZBUserProcess(platform) {}

    bool initWithCorpse(TaskName task, std::int32_t pid, const std::string& name, std::uint32_t dirtyFlags,
                        std::uint32_t procFlags);
    bool _populateTask() override { return _task != kTaskNull; }
    void _gatherIdleExitStatus() override {}
    [[nodiscard]] bool _isAlive() const override { return false; }
};

}  // namespace zorbel
