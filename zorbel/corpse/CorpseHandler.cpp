#include "corpse/CorpseHandler.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "corpse/DyingProcess.h"
#include "corpse/ReportDirectory.h"
#include "corpse/ReportFile.h"

namespace zorbel {

namespace {

using Clock = std::chrono::steady_clock;

/// Ends this process when its parent ends. Otherwise it would keep the crashed process alive.
void dieWith(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_FAILURE);
}

/// Executes zorbel and passes the process's directory to it. Returns only on failure.
Error becomeZorbel(const CorpseSettings& settings, const Crash& crash, const std::string& program,
                   const DyingProcess& process, int text, int document) {
    constexpr int kHandedOver = 3;
    constexpr int kDocument = 4;
    constexpr int kOutOfTheWay = 10;
    const std::pair<int, int> moves[] = {
        {fcntl(text, F_DUPFD_CLOEXEC, kOutOfTheWay), STDOUT_FILENO},
        {fcntl(process.directory(), F_DUPFD_CLOEXEC, kOutOfTheWay), kHandedOver},
        {fcntl(document, F_DUPFD_CLOEXEC, kOutOfTheWay), kDocument}};
    for (const auto& [from, to] : moves)
        if (from < 0 || dup2(from, to) < 0) return Error::last().on("descriptors");
    fcntl(STDERR_FILENO, F_SETFD, 0);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    char flags[16];
    std::snprintf(flags, sizeof flags, "%x", process.flags());
    const std::string pid = std::to_string(crash.pid);
    const std::string path = "/proc/self/fd/" + std::to_string(kDocument);
    execl(settings.zorbel.c_str(), settings.zorbel.c_str(), "--corpsePid", pid.c_str(), "--corpseName",
          program.c_str(), "--corpseDirtyFlags", "0", "--corpseProcFlags", flags, "-w", "-j", path.c_str(),
          static_cast<char*>(nullptr));
    return Error::last().on(settings.zorbel);
}

/// Runs zorbel on the process and writes its output to the files.
Result<void> runZorbel(const CorpseSettings& settings, const Crash& crash, const std::string& program,
                       const DyingProcess& process, ReportFile& text, ReportFile& document,
                       Clock::time_point deadline, Diagnostics& diagnostics) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) return Error::last().on("fork");
    if (child == 0) {
        dieWith(parent);
        diagnostics.report(
            becomeZorbel(settings, crash, program, process, text.sink(), document.sink()).description);
        _exit(EXIT_FAILURE);
    }
    text.closeSink();
    document.closeSink();
    // Limits one report's size, so that it can't displace all others.
    constexpr std::uint64_t kReportsAtLeast = 10;
    const std::uint64_t keptBytes = settings.keptMiB * std::uint64_t{1024} * 1024;
    auto filled = fillFromPipes(text, document, deadline, keptBytes / kReportsAtLeast);
    if (!filled) kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (filled && (status != 0 || document.size() == 0)) return Error{"", 0, settings.zorbel + " failed"};
    return filled;
}

/// Writes a report before the deadline.
Result<void> writeReport(const CorpseSettings& settings, const Crash& crash, Clock::time_point deadline,
                         Diagnostics& diagnostics) {
    const auto process = DyingProcess::open(crash.pid);
    if (!process) return process.error();
    const ReportDirectory directory(settings.directory);
    if (auto made = directory.make(); !made) return made;
    std::string program = process->programName();
    if (program.empty()) program = crash.threadName;  // All that the kernel provides.
    const std::string path = directory.pathFor(crash.time, crash.pid, program);
    ReportFile text(path + ".txt");
    ReportFile document(path + ".json");
    if (auto opened = text.open(); !opened) return opened;
    if (auto opened = document.open(); !opened) return opened;
    if (auto begun = text.append(headlineOf(crash, program)); !begun) return begun;
    auto ran = runZorbel(settings, crash, program, *process, text, document, deadline, diagnostics);
    if (!ran) return ran;
    if (auto published = text.publish(); !published) return published;
    if (auto published = document.publish(); !published) return published;
    text.keep();
    document.keep();
    directory.prune(settings.keptReports, settings.keptMiB * std::uint64_t{1024} * 1024, path);
    return {};
}

/// Closes standard input, which is the core image: only the supervising process keeps it open.
Result<void> letGoOfImage() {
    const FileDescriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!nothing.isOpen() || dup2(nothing.get(), STDIN_FILENO) < 0) return Error::last().on("/dev/null");
    return {};
}

[[noreturn]] void work(const CorpseSettings& settings, const Crash& crash, Clock::time_point deadline,
                       Diagnostics& diagnostics) {
    umask(S_IRWXG | S_IRWXO);
    auto result = letGoOfImage();
    if (result) result = writeReport(settings, crash, deadline, diagnostics);
    if (result) _exit(EXIT_SUCCESS);
    diagnostics.report(result.error().description);
    diagnostics.report("no report on process " + std::to_string(crash.pid));
    _exit(EXIT_FAILURE);
}

}  // namespace

std::string headlineOf(const Crash& crash, const std::string& program) {
    char time[32] = {};
    std::tm parts{};
    const std::time_t seconds = crash.time;
    if (gmtime_r(&seconds, &parts) != nullptr)
        std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S UTC", &parts);
    const char* signal = sigdescr_np(static_cast<int>(crash.signal));
    return program + " [" + std::to_string(crash.pid) + "], thread " + crash.threadName +
           ", was ended by signal " + std::to_string(crash.signal) +
           (signal != nullptr ? std::string(" (") + signal + ")" : "") + " at " + time + "\n\n";
}

void superviseReport(const CorpseSettings& settings, const Crash& crash, Diagnostics& diagnostics) {
    constexpr std::chrono::seconds kGrace(2);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(settings.seconds);
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    sigprocmask(SIG_BLOCK, &ended, nullptr);
    const pid_t parent = getpid();
    const pid_t worker = fork();
    if (worker < 0) diagnostics.report(Error::last().on("fork").description);
    if (worker == 0) {
        dieWith(parent);
        sigprocmask(SIG_UNBLOCK, &ended, nullptr);
        work(settings, crash, deadline, diagnostics);
    }
    while (worker > 0 && waitpid(worker, nullptr, WNOHANG) == 0) {
        const int left = millisecondsUntil(deadline + kGrace);
        const timespec limit = {left / 1000, left % 1000 * 1000000L};
        if (left == 0 || (sigtimedwait(&ended, nullptr, &limit) < 0 && errno == EAGAIN)) {
            diagnostics.report("no report on process " + std::to_string(crash.pid) + " in time");
            kill(worker, SIGKILL);
            break;
        }
    }
    sigprocmask(SIG_UNBLOCK, &ended, nullptr);
}

std::string defaultZorbel() {
    const auto self = readLink("/proc/self/exe", AT_FDCWD);
    return self ? self->substr(0, self->rfind('/') + 1) + "zorbel" : "zorbel";
}

}  // namespace zorbel
