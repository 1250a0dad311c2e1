#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/ZBAuxData.h"
#include "model/ZBMemoryRegion.h"
#include "platform/Platform.h"

namespace zorbel {

class ZBProcess;

/// Whether the system may end a process while it is idle, and whether that would lose data (dirty).
enum class ZBIdleExitStatus : std::int32_t {
    kUnknown = 0,
    kNotIdleExit = 1,
    kIdleExitClean = 2,
    kIdleExitDirty = 3
};

/// The targets of a run.
using Targets = std::vector<std::unique_ptr<ZBProcess>>;

/// A process selected by a description.
struct DescribedProcess {
    std::int32_t pid = 0;
    std::optional<std::string> name;  ///< The description if it matched by name, nothing if by pid.
    std::size_t description = 0;      ///< Index of the description.
};

/// A target: its identity, its regions after gathering, and the errors that occurred.
///
/// Objects are created on the main thread. `readData` and `gatherData` run on workers, one at a time, and no
/// other thread uses the object meanwhile. Errors and warnings are never cleared.
class ZBProcess {
  public:
    ZBProcess(const ZBProcess&) = delete;
    ZBProcess& operator=(const ZBProcess&) = delete;
    virtual ~ZBProcess() = default;

    // Selection of targets, in cli/.

    /// All records of the system, in the system's order; empty if the list is not available.
    static std::vector<BsdInfoRecord> copyAllBsdInfos(Platform& platform);

    /// All processes that can be opened and are not excluded, in the system's order; nothing if the system's
    /// list is not available.
    static std::optional<Targets> allProcessesExcludingPids(Platform& platform,
                                                            const std::set<std::int32_t>& excludedPids);

    /// Finds processes by names or pids. Each description selects the first process, in the system's order,
    /// whose name is equal or whose pid is the number at the start of the description. A description without
    /// a match adds a message to errors, if given. Nothing if the system's list is not available.
    static std::optional<std::vector<DescribedProcess>> pidsForStringDescriptions(
        Platform& platform, const std::vector<std::string>& descriptions, std::vector<std::string>* errors);

    /// The given pids and all their descendants, level by level and without duplicates; nothing if the
    /// system's list is not available.
    static std::optional<std::vector<std::int32_t>> childPidsForPids(Platform& platform,
                                                                     const std::vector<std::int32_t>& pids);

    /// Removes the processes that the system may end without loss.
    static Targets removeIdleExitCleanProcessesFrom(Targets targets);

    // Construction.

    /// The process with this pid; null if it does not exist or can't be opened.
    static std::unique_ptr<ZBProcess> processWithPid(Platform& platform, std::int32_t pid);

    /// A process of the record's kind; null if it can't be opened.
    static std::unique_ptr<ZBProcess> processWithBsdInfo(Platform& platform, const BsdInfoRecord& record);

    /// File name of the executable in an argument area; nothing if it has none.
    static std::optional<std::string> _nameInArgumentArea(std::string area);
    /// File name of the executable from the argument area, else the name in the record.
    static std::string _nameForBsdInfo(Platform& platform, const BsdInfoRecord& record);
    /// The record's long name, else its command name, else "Unknown".
    static std::string _nameForBsdInfoCommName(const BsdInfoRecord& record);

    // Errors of the run as a whole. Main thread only.

    static void _addGlobalError(std::string text);
    static void _clearGlobalErrors();
    static const std::vector<std::string>& globalErrors();

    // Phases of a run. Each is called once, on a worker.

    /// Reads the data that the system must provide in one reading.
    virtual void readData() {}
    /// Finds out what tells the target apart from others with its name, before its regions are filled. Only
    /// called in runs that report it.
    virtual void gatherDetails() {}
    /// Fills the regions. All targets have been read before.
    virtual void gatherData() {}

    /// Reports the messages of the workers, all of one process together. Main thread only.
    void reportMessages();

    // Results.

    /// Index of the target in a run, in the order of selection. A pid does not identify a target: two graphs
    /// may have the same.
    [[nodiscard]] std::size_t ordinal() const { return _ordinal; }
    void setOrdinal(std::size_t ordinal) { _ordinal = ordinal; }

    [[nodiscard]] std::int32_t pid() const { return _pid; }
    [[nodiscard]] bool is64bit() const { return _is64bit; }
    [[nodiscard]] ZBIdleExitStatus idleExitStatus() const { return _idleExitStatus; }
    [[nodiscard]] const std::vector<std::string>& errors() const { return _errors; }
    [[nodiscard]] const std::vector<std::string>& warnings() const { return _warnings; }
    [[nodiscard]] const std::string& name() const { return _name; }
    /// Name and pid as shown in reports.
    [[nodiscard]] const std::string& displayString() const { return _displayString; }
    [[nodiscard]] const std::optional<ProcessDetails>& details() const { return _details; }
    /// Page size of the target in bytes.
    [[nodiscard]] std::uint32_t pageSize() const { return _pageSize; }

    /// Regions in the order of the walk. Pointers to them stay valid after gathering.
    [[nodiscard]] const std::vector<ZBMemoryRegion>& memoryRegions() const { return _memoryRegions; }
    [[nodiscard]] std::vector<ZBMemoryRegion>& memoryRegions() { return _memoryRegions; }

    /// Other figures of the process; null or empty if it has none.
    [[nodiscard]] virtual std::shared_ptr<const ZBAuxDataDictionary> auxData() const;
    /// Whether this process is measured in breakdown mode.
    [[nodiscard]] virtual bool breakDownPhysZorbel() const;

  protected:
    explicit ZBProcess(Platform& platform) : _platform(platform) {}

    /// Sets the identity from the record and opens the target. Returns false if it can't be opened, after
    /// reporting the reason.
    virtual bool initWithBsdInfo(const BsdInfoRecord& record);

    /// Keeps a worker's message for the user.
    void _addMessage(std::string text) { _messages.push_back(std::move(text)); }

    /// Opens the target; false if that fails. An override reports the reason.
    virtual bool _populateTask() { return false; }
    /// Name of the target. Called after it is opened.
    [[nodiscard]] virtual std::string _gatherName(const BsdInfoRecord& record) const {
        return _nameForBsdInfo(_platform, record);
    }
    [[nodiscard]] virtual std::uint32_t _gatherPageSize() const { return _platform.vm_kernel_page_size(); }
    /// Whether the target is running, so that it may exit while it is measured.
    [[nodiscard]] virtual bool _isAlive() const { return false; }

    Platform& _platform;
    std::size_t _ordinal = 0;
    std::int32_t _pid = 0;
    bool _is64bit = false;
    ZBIdleExitStatus _idleExitStatus = ZBIdleExitStatus::kUnknown;
    std::vector<std::string> _errors;
    std::vector<std::string> _warnings;
    std::vector<std::string> _messages;  ///< Not reported yet.
    std::string _name;
    std::string _displayString;
    std::optional<ProcessDetails> _details;
    std::vector<ZBMemoryRegion> _memoryRegions;
    std::uint32_t _pageSize = 0;
};

}  // namespace zorbel
