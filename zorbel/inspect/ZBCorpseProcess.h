#pragma once

#include <memory>
#include <string>

#include "inspect/ZBUserProcess.h"

namespace zorbel {

/// A dead process whose memory another program keeps for us. It is measured like a live one, through a task
/// that was passed to us. The caller provides what the system no longer knows.
class ZBCorpseProcess : public ZBUserProcess {
  public:
    /// The dirty flags are kProcDirty bits, the process flags are CorpseFlags. Null for kTaskNull.
    static std::unique_ptr<ZBCorpseProcess> processWithCorpse(Platform& platform, TaskName task,
                                                              std::int32_t pid, const std::string& name,
                                                              std::uint32_t dirtyFlags,
                                                              std::uint32_t procFlags);

  protected:
    explicit ZBCorpseProcess(Platform& platform) : ZBUserProcess(platform) {}

    bool initWithCorpse(TaskName task, std::int32_t pid, const std::string& name, std::uint32_t dirtyFlags,
                        std::uint32_t procFlags);
    bool _populateTask() override { return _task != kTaskNull; }
    /// The given name: the pid may already belong to another process.
    [[nodiscard]] std::string _gatherName(const BsdInfoRecord& /*record*/) const override {
        return _givenName;
    }
    void _gatherIdleExitStatus() override {}
    [[nodiscard]] bool _isAlive() const override { return false; }

  private:
    std::string _givenName;
};

}  // namespace zorbel
