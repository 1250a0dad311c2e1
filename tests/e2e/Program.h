#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace zorbel::e2e {

using Words = std::vector<std::string>;

const std::string kZorbel = PROGRAM_DIR "/zorbel";

/// A line of a category table, in pages.
struct Row {
    std::int64_t dirty = 0, swapped = 0, clean = 0, reclaimable = 0, wired = 0, regions = 0;

    friend bool operator==(const Row&, const Row&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Row& row);
};

using Table = std::map<std::string, Row>;

/// A line of the listing of an address space, in pages. As there, dirty pages include those in swap.
struct ListedRegion {
    std::uint64_t start = 0, end = 0;
    std::int64_t size = 0, dirty = 0, swapped = 0, clean = 0, reclaimable = 0, wired = 0;
    std::string name;

    [[nodiscard]] std::int64_t resident() const { return dirty - swapped + clean + reclaimable; }
};

/// Result of a program.
struct Outcome {
    int status = -1;  ///< As waitpid() returns it.
    std::string output;
    std::string error;

    /// The table after these texts, which follow each other in a report of the widest form in
    /// pages. Empty if there is none.
    [[nodiscard]] Table tableAfter(const Words& texts) const;
    /// The process's own categories.
    [[nodiscard]] Table tableOf(pid_t pid) const;
    [[nodiscard]] Table summary() const { return tableAfter({"Summary Zorbel: "}); }
    /// All lines of the listings in a report of the widest form.
    [[nodiscard]] std::vector<ListedRegion> listing() const;
};

/// How a report names a process, and how it begins that process's section.
inline std::string numberOf(pid_t pid) { return " [" + std::to_string(pid) + "]"; }
inline std::string headerOf(pid_t pid) { return numberOf(pid) + ": 64-bit"; }

/// What the process of a program does before the program begins, such as to become another user. The program
/// is opened before that, so it need not be in reach then.
using Preparation = std::function<void()>;

/// A program that runs, and what it prints.
class ProgramRun {
  public:
    explicit ProgramRun(Words command, bool isOnTerminal = false, const Preparation& prepare = {});
    ProgramRun(const ProgramRun&) = delete;
    ~ProgramRun();

    /// Stops it while it reads the regions of the target. False if it finished too early.
    [[nodiscard]] bool stopWhileReading(pid_t target) const;
    /// Interrupts it as Ctrl-C does.
    void interrupt() const;
    /// Continues it after a stop, and waits for its end. Output on a terminal is returned as output.
    Outcome finish();

  private:
    int _output;
    int _error;
    int _terminal = -1;
    pid_t _pid = 0;
};

/// The arguments for a report of the widest form in pages.
Words wide(const std::vector<pid_t>& pids);

/// Runs zorbel to its end, or another program that runs it.
Outcome runZorbel(const Words& arguments, Words program = {kZorbel}, const Preparation& prepare = {});
inline Outcome measure(const std::vector<pid_t>& pids) { return runZorbel(wide(pids)); }

}  // namespace zorbel::e2e
