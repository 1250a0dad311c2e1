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

/// Whether a process may be ended by the system while it is idle, and what that would lose.
enum class ZBIdleExitStatus : std::int32_t {
    kUnknown = 0,
    kNotIdleExit = 1,
    kIdleExitClean = 2,
    kIdleExitDirty = 3
};

/// The targets of a run.
using Targets = std::vector<std::unique_ptr<ZBProcess>>;

/// A process that a description has selected.
struct DescribedProcess {
    std::int32_t pid = 0;
    std::optional<std::string> name;  ///< The description, where it matched by name and not by number.
    std::size_t description = 0;      ///< Index of the description.
};

/// A target: its identity, its regions once gathered, and what went wrong meanwhile.
///
/// Objects are made on the main thread; `readData` and `gatherData` run on workers, one at a time, and nobody
/// else touches the object meanwhile. Errors and warnings are never cleared.
class ZBProcess {
  public:
    ZBProcess(const ZBProcess&) = delete;
    ZBProcess& operator=(const ZBProcess&) = delete;
    virtual ~ZBProcess() = default;

    // Selection of targets, in cli/.

    /// Every record of the system, in the system's order; empty when the list can't be had.
    static std::vector<BsdInfoRecord> copyAllBsdInfos(Platform& platform);

    /// Every process that can be opened and is not excluded, in the system's order; nothing when the system's
    /// list can't be had.
    static std::optional<Targets> allProcessesExcludingPids(Platform& platform,
                                                            const std::set<std::int32_t>& excludedPids);

    /// Resolves names and numbers: each selects the first process, in the system's order, whose name it
    /// equals or whose pid it begins with. What matches nothing adds a text to the errors, where a list is
    /// given. Nothing when the system's list can't be had.
    static std::optional<std::vector<DescribedProcess>> pidsForStringDescriptions(
        Platform& platform, const std::vector<std::string>& descriptions, std::vector<std::string>* errors);

    /// The given pids and all their descendants, level by level, each once; nothing when the system's list
    /// can't be had.
    static std::optional<std::vector<std::int32_t>> childPidsForPids(Platform& platform,
                                                                     const std::vector<std::int32_t>& pids);

    /// Leaves out the processes that the system may end at no loss.
    static Targets removeIdleExitCleanProcessesFrom(Targets targets);

    // Construction.

    /// The process with this pid; null when it does not exist or can't be opened.
    static std::unique_ptr<ZBProcess> processWithPid(Platform& platform, std::int32_t pid);

    /// A process of the kind that the record calls for; null when it can't be opened.
    static std::unique_ptr<ZBProcess> processWithBsdInfo(Platform& platform, const BsdInfoRecord& record);

    /// File name of the executable in an argument area; nothing where it holds none.
    static std::optional<std::string> _nameInArgumentArea(std::string area);
    /// File name of the executable, from the argument area; failing that, the record's names.
    static std::string _nameForBsdInfo(Platform& platform, const BsdInfoRecord& record);
    /// The record's long name, else its command name, else "Unknown".
    static std::string _nameForBsdInfoCommName(const BsdInfoRecord& record);

    // Errors of the run that belong to no process. Main thread only.

    static void _addGlobalError(std::string text);
    static void _clearGlobalErrors();
    static const std::vector<std::string>& globalErrors();

    // Phases of a run, each called once, on a worker.

    /// Reads from the system what has to be read at once.
    virtual void readData() {}
    /// Fills the regions, once all targets have been read.
    virtual void gatherData() {}

    /// Reports what workers had to say, in one piece for each process. Main thread only.
    void reportMessages();

    // Results.

    /// Tells the targets of a run apart, in the order of selection, and indexes them. A pid does not: two
    /// graphs of one process have the same, and so do the first processes of two containers.
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
    /// Page size of the target in bytes.
    [[nodiscard]] std::uint32_t pageSize() const { return _pageSize; }

    /// Regions in the order of the walk. They never move once gathered, so that pointers to them stay good.
    [[nodiscard]] const std::vector<ZBMemoryRegion>& memoryRegions() const { return _memoryRegions; }
    [[nodiscard]] std::vector<ZBMemoryRegion>& memoryRegions() { return _memoryRegions; }

    /// Further figures of the process; null when it has none.
    [[nodiscard]] virtual std::shared_ptr<const ZBAuxDataDictionary> auxData() const;
    /// Whether this process is measured in breakdown mode.
    [[nodiscard]] virtual bool breakDownPhysZorbel() const;

  protected:
    explicit ZBProcess(Platform& platform) : _platform(platform) {}

    /// Takes the identity from the record and opens the target. False when it can't be opened; the reason has
    /// been reported by then.
    virtual bool initWithBsdInfo(const BsdInfoRecord& record);

    /// Keeps a message for the user that comes up on a worker.
    void _addMessage(std::string text) { _messages.push_back(std::move(text)); }

    /// Opens the target; reports why when it returns false.
    virtual bool _populateTask() { return false; }
    /// Name of the target, asked for once it is open.
    [[nodiscard]] virtual std::string _gatherName(const BsdInfoRecord& record) const {
        return _nameForBsdInfo(_platform, record);
    }
    [[nodiscard]] virtual std::uint32_t _gatherPageSize() const { return _platform.vm_kernel_page_size(); }
    /// Whether the target is a process that runs, and may so exit under our hands.
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
    std::vector<ZBMemoryRegion> _memoryRegions;
    std::uint32_t _pageSize = 0;
};

}  // namespace zorbel
