#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "aggregate/ZBZorbel.h"
#include "support/ScriptedPlatform.h"

namespace zorbel::test {

/// A target with regions and auxiliary data that a test sets directly, for cases that no walk produces.
class FixedProcess : public ZBProcess {
  public:
    FixedProcess(Platform& platform, std::int32_t pid) : ZBProcess(platform) {
        _pid = pid;
        _name = "fixed" + std::to_string(pid);
        _displayString = _name + " [" + std::to_string(pid) + "]";
        _pageSize = kPage;
        _is64bit = true;
    }

    using ZBProcess::_errors;
    using ZBProcess::_is64bit;
    using ZBProcess::_warnings;
    std::shared_ptr<const ZBAuxDataDictionary> figures;

    /// A region of one page that maps the start of an object. The next call may move it.
    ZBMemoryRegion& add(const char* name, std::uint64_t objectId, std::uint64_t dirtyBytes) {
        ZBMemoryRegion& region = _memoryRegions.emplace_back();
        region.setName(Name(name));
        region.setObject_id(objectId);
        region.setDirtySize(dirtyBytes);
        region.setSize(kPage);
        region.setSegment(SegmentCode::kNotInImage);
        return region;
    }

    std::shared_ptr<const ZBAuxDataDictionary> auxData() const override { return figures; }
};

/// A scripted machine with one process, which is inspected.
class WalkTest : public testing::Test {
  protected:
    /// Inspects the process and keeps the messages.
    void gather() {
        baker.lookups = 0;
        baker.topLookups.clear();
        baker.pageQueries.clear();
        machine.messages.take();
        process = std::move(machine.open().front());
        process->readData();
        process->gatherData();
        process->reportMessages();
        said = machine.messages.take();
    }

    std::vector<std::uint64_t> starts() const {
        std::vector<std::uint64_t> all;
        for (const ZBMemoryRegion& region : process->memoryRegions()) all.push_back(region.start());
        return all;
    }

    ScriptedPlatform machine;
    ScriptedProcess& baker = machine.process(100, "baker");
    std::unique_ptr<ZBProcess> process;
    std::string said;
};

/// A scripted machine, and a coordinator of its processes or of fixed ones.
class CoordinatorTest : public testing::Test {
  protected:
    ~CoordinatorTest() override { ZBProcess::_clearGlobalErrors(); }

    FixedProcess& fixed(std::int32_t pid) {
        processes.push_back(std::make_unique<FixedProcess>(machine, pid));
        return static_cast<FixedProcess&>(*processes.back());
    }

    /// Gathers the fixed processes, or those of the machine if there are none.
    void gather(unsigned workers = 0) {
        zorbel = std::make_unique<ZBZorbel>(
            machine, processes.empty() ? machine.open() : std::move(processes), workers);
        processes.clear();
        zorbel->gatherData();
    }

    /// The zorbel of the first process with a pid, in bytes.
    [[nodiscard]] std::uint64_t zorbelOf(std::int32_t pid) const {
        const auto found =
            std::ranges::find(zorbel->processes(), pid, [](const auto& p) { return p->pid(); });
        return zorbel->_zorbelOf(**found);
    }

    ScriptedPlatform machine;
    Targets processes;
    std::unique_ptr<ZBZorbel> zorbel;
};

}  // namespace zorbel::test
