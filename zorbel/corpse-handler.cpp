// The program that the kernel starts for each process that dies by a signal.

#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/ReportDirectory.h"
#include "inspect/ZBCorpseProcess.h"
#include "inspect/linux/ProcFiles.h"
#include "inspect/linux/ProcessStat.h"
#include "model/Utf8.h"

namespace zorbel {

namespace {

constexpr const char* kUsage =
    "Report on the memory of a process that is dying, as the kernel's handler of core dumps\n"
    "Usage: zorbel-corpse-handler [args] pid name signal time [--then command [argument ...]]\n"
    "\t--directory <directory> \twhere the reports go (default: /var/lib/zorbel/corpses)\n"
    "\t--keep <count> \t\t\tmost reports to be kept (default: 100)\n"
    "\t--keepMiB <size> \t\tmost MiB of reports to be kept (default: 100)\n"
    "\t--timeout <seconds> \t\tlongest time for a report (default: 60)\n"
    "\t--zorbel <path> \t\tthe program that reports (default: zorbel beside this program)\n"
    "\t--then command \t\t\tthe handler that gets the core image afterwards; otherwise nobody does\n"
    "\t-h, --help \t\t\tprint this output\n"
    "Install it with: echo '|/usr/bin/zorbel-corpse-handler %P %e %s %t' >/proc/sys/kernel/core_pattern\n";

enum Option : int { kDirectory = 256, kKeep, kKeepMiB, kTimeout, kZorbel };

constexpr option kLongOptions[] = {
    {"directory", required_argument, nullptr, kDirectory},
    {"help", no_argument, nullptr, 'h'},
    {"keep", required_argument, nullptr, kKeep},
    {"keepMiB", required_argument, nullptr, kKeepMiB},
    {"timeout", required_argument, nullptr, kTimeout},
    {"zorbel", required_argument, nullptr, kZorbel},
    {nullptr, 0, nullptr, 0},
};

struct Settings {
    std::string directory = "/var/lib/zorbel/corpses";
    std::uint32_t keptReports = 100;
    std::uint32_t keptMiB = 100;
    std::uint32_t seconds = 60;
    std::string zorbel;
    char* const* then = nullptr;  ///< Command and arguments, ended by null.
};

/// What the kernel tells of the process.
struct Crash {
    std::int32_t pid = 0;
    std::string threadName;
    std::uint32_t signal = 0;
    std::int64_t time = 0;
};

using Clock = std::chrono::steady_clock;

/// 0 once it has passed.
int millisecondsUntil(Clock::time_point time) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(time - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT32_MAX));
}

void say(const std::string& text) { std::fprintf(stderr, "zorbel-corpse-handler: %s\n", text.c_str()); }
void sayError(const std::string& what, int error) { say(what + ": " + std::strerror(error)); }

/// The kernel opens no standard output and error for us. What we and zorbel have to say goes to its log; the
/// handler that comes after us finds them closed again.
void openStandardStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) >= 0) continue;
        if (fd == STDIN_FILENO || open("/dev/kmsg", O_WRONLY | O_CLOEXEC) < 0)
            open("/dev/null", O_RDWR | O_CLOEXEC);
    }
}

template <typename Number>
bool take(const char* text, Number& number) {
    const char* end = text + std::strlen(text);
    const auto [parsed, error] = std::from_chars(text, end, number);
    return error == std::errc() && parsed == end;
}

/// Returns the exit status where the command line ends the run.
std::optional<int> parse(int argc, char* argv[], Settings& settings, Crash& crash) {
    int code = 0;
    bool isRight = true;
    // Names are strangers' words: from the pid on, nothing is an option.
    while ((code = getopt_long(argc, argv, "+h", kLongOptions, nullptr)) != -1) {
        switch (code) {
            case kDirectory:
                settings.directory = optarg;
                break;
            case kKeep:
                isRight = isRight && take(optarg, settings.keptReports);
                break;
            case kKeepMiB:
                isRight = isRight && take(optarg, settings.keptMiB);
                break;
            case kTimeout:
                isRight = isRight && take(optarg, settings.seconds);
                break;
            case kZorbel:
                settings.zorbel = optarg;
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                return EXIT_SUCCESS;
            default:
                isRight = false;
        }
    }
    char** rest = argv + optind;
    const int count = argc - optind;
    constexpr int kArguments = 4;
    isRight = isRight && count >= kArguments && take(rest[0], crash.pid) && crash.pid > 0 &&
              take(rest[2], crash.signal) && take(rest[3], crash.time);
    if (count > kArguments) {
        isRight = isRight && count > kArguments + 1 && std::string_view(rest[kArguments]) == "--then";
        if (count > kArguments + 1) settings.then = rest + kArguments + 1;
    }
    if (!isRight) {
        say("wrong arguments; see --help");
        return EXIT_FAILURE;
    }
    crash.threadName = printable(rest[1]);
    return std::nullopt;
}

/// The program beside this one.
std::string defaultZorbel() {
    const std::string self = readLink("/proc/self/exe", AT_FDCWD).value_or("");
    return self.substr(0, self.rfind('/') + 1) + "zorbel";
}

/// Calls with the process's directory and, until that returns true, with those of its threads: of a first
/// thread that has ended before the others, the kernel tells little.
void lookAtThreads(int processDirectory, const std::function<bool(const std::string& directory)>& look) {
    if (!look("")) anyThread(processDirectory, [&](const std::string& thread) { return look(thread + "/"); });
}

/// Whether the process is the one that waits for us: another one may have its number by now, where the kernel
/// does not wait.
bool isDumpingCore(int processDirectory) {
    bool isDumping = false;
    lookAtThreads(processDirectory, [&](const std::string& directory) {
        const auto text = readWholeFile((directory + "status").c_str(), processDirectory);
        isDumping = text && text->find("\nCoreDumping:\t1\n") != std::string::npos;
        return isDumping;
    });
    return isDumping;
}

/// File name of the program; the thread's name, which is all that the kernel has told, where it is not known.
std::string programOf(int processDirectory, const Crash& crash) {
    constexpr std::string_view kDeleted = " (deleted)";
    std::string path;
    lookAtThreads(processDirectory, [&](const std::string& directory) {
        path = readLink((directory + "exe").c_str(), processDirectory).value_or("");
        return !path.empty();
    });
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    const std::string name = printable(path.substr(path.rfind('/') + 1));
    return name.empty() ? crash.threadName : name;
}

std::uint32_t procFlagsOf(int processDirectory) {
    std::optional<ProcessStat> stat;
    lookAtThreads(processDirectory, [&](const std::string& directory) {
        const auto text = readWholeFile((directory + "stat").c_str(), processDirectory);
        stat = text ? parseProcessStat(*text) : std::nullopt;
        return stat && stat->stackStart != 0;
    });
    std::uint32_t flags = 0;
    if (!stat || stat->is64bit()) flags |= ZBCorpseProcess::kFlag64Bit;
    if (stat && stat->terminal != 0) flags |= ZBCorpseProcess::kFlagControllingTerminal;
    return flags;
}

/// How the report begins, for those who read it.
std::string headline(const Crash& crash, const std::string& program) {
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

/// One of the files of a report, and the pipe from which it comes. It bears another name until it is
/// complete, and goes with the object when it never is.
class ReportFile {
  public:
    explicit ReportFile(std::string path)
        : _path(std::move(path)), _part(_path + ReportDirectory::kPartSuffix) {}
    ReportFile(const ReportFile&) = delete;
    ~ReportFile() {
        if (_file.isOpen()) unlink(_part.c_str());
    }

    /// False, and said, when the file can't be made. Never follows a link that somebody has laid there.
    bool open() {
        constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        _file = FileDescriptor(::open(_part.c_str(), kFlags, S_IRUSR | S_IWUSR));
        int ends[2];
        if (!_file.isOpen() || pipe2(ends, O_CLOEXEC) != 0) {
            sayError(_part, errno);
            return false;
        }
        _source = FileDescriptor(ends[0]);
        _sink = FileDescriptor(ends[1]);
        return true;
    }

    bool append(std::string_view text) {
        while (!text.empty()) {
            const ssize_t count = write(_file.get(), text.data(), text.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) {
                sayError(_part, errno);
                return false;
            }
            _size += static_cast<std::uint64_t>(count);
            text.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    [[nodiscard]] int source() const { return _source.get(); }
    [[nodiscard]] int sink() const { return _sink.get(); }
    void closeSource() { _source = FileDescriptor(); }
    void closeSink() { _sink = FileDescriptor(); }
    [[nodiscard]] std::uint64_t size() const { return _size; }

    /// Gives the file its name. False, and said, when that fails.
    bool publish() {
        if (std::rename(_part.c_str(), _path.c_str()) != 0) {
            sayError(_path, errno);
            return false;
        }
        _part = _path;
        return true;
    }
    /// From now on it stays.
    void keep() { _file = FileDescriptor(); }

  private:
    std::string _path;
    std::string _part;
    FileDescriptor _file;
    FileDescriptor _source;
    FileDescriptor _sink;
    std::uint64_t _size = 0;
};

/// Dies with the parent, which must not leave anybody behind who keeps the process.
void dieWith(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_FAILURE);
}

/// Becomes zorbel, with the process's directory handed over.
[[noreturn]] void becomeZorbel(const Settings& settings, const Crash& crash, const std::string& program,
                               int processDirectory, int text, int document) {
    constexpr int kHandedOver = 3;
    constexpr int kDocument = 4;
    constexpr int kOutOfTheWay = 10;
    const std::pair<int, int> moves[] = {
        {fcntl(text, F_DUPFD_CLOEXEC, kOutOfTheWay), STDOUT_FILENO},
        {fcntl(processDirectory, F_DUPFD_CLOEXEC, kOutOfTheWay), kHandedOver},
        {fcntl(document, F_DUPFD_CLOEXEC, kOutOfTheWay), kDocument}};
    for (const auto& [from, to] : moves) dup2(from, to);
    fcntl(STDERR_FILENO, F_SETFD, 0);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    char flags[16];
    std::snprintf(flags, sizeof flags, "%x", procFlagsOf(kHandedOver));
    const std::string pid = std::to_string(crash.pid);
    const std::string path = "/proc/self/fd/" + std::to_string(kDocument);
    execl(settings.zorbel.c_str(), settings.zorbel.c_str(), "--corpsePid", pid.c_str(), "--corpseName",
          program.c_str(), "--corpseDirtyFlags", "0", "--corpseProcFlags", flags, "-w", "-j", path.c_str(),
          static_cast<char*>(nullptr));
    sayError(settings.zorbel, errno);
    _exit(EXIT_FAILURE);
}

/// Fills the files with what comes through their pipes, until both end. False, and said, when that goes
/// wrong, takes too long or is too much.
bool fill(ReportFile& text, ReportFile& document, Clock::time_point deadline, std::uint64_t mostBytes) {
    std::vector<char> piece(1 << 16);
    for (;;) {
        pollfd sources[] = {{text.source(), POLLIN, 0}, {document.source(), POLLIN, 0}};
        if (sources[0].fd < 0 && sources[1].fd < 0) return true;
        const int ready = poll(sources, 2, millisecondsUntil(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            say("the report takes too long");
            return false;
        }
        for (ReportFile* file : {&text, &document}) {
            if (sources[file == &text ? 0 : 1].revents == 0) continue;
            const std::ptrdiff_t count = readSome(file->source(), piece.data(), piece.size());
            if (count <= 0) file->closeSource();
            if (count > 0 && !file->append({piece.data(), static_cast<std::size_t>(count)})) return false;
        }
        if (text.size() + document.size() > mostBytes) {
            say("the report is larger than a tenth of all that is to be kept");
            return false;
        }
    }
}

/// Writes a report, before the deadline. Whether it is there.
bool report(const Settings& settings, const Crash& crash, Clock::time_point deadline) {
    const auto failed = [](const std::string& what, int error) {
        sayError(what, error);
        return false;
    };
    const FileDescriptor process(
        open(("/proc/" + std::to_string(crash.pid)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!process.isOpen()) return failed("process " + std::to_string(crash.pid), errno);
    if (!isDumpingCore(process.get())) return failed("process " + std::to_string(crash.pid), ESRCH);
    const ReportDirectory directory(settings.directory);
    if (const int error = directory.make()) return failed(settings.directory, error);
    const std::string program = programOf(process.get(), crash);
    const std::string path = directory.pathFor(crash.time, crash.pid, program);
    ReportFile text(path + ".txt");
    ReportFile document(path + ".json");
    if (!text.open() || !document.open() || !text.append(headline(crash, program))) return false;

    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) return failed("fork", errno);
    if (child == 0) {
        dieWith(parent);
        becomeZorbel(settings, crash, program, process.get(), text.sink(), document.sink());
    }
    text.closeSink();
    document.closeSink();
    // One program must not drive out the reports on all others.
    constexpr std::uint64_t kReportsAtLeast = 10;
    const std::uint64_t keptBytes = settings.keptMiB * std::uint64_t{1024} * 1024;
    const bool isFilled = fill(text, document, deadline, keptBytes / kReportsAtLeast);
    if (!isFilled) kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (!isFilled || status != 0 || document.size() == 0) return false;
    if (!text.publish() || !document.publish()) return false;
    text.keep();
    document.keep();
    directory.prune(settings.keptReports, keptBytes, path);
    return true;
}

/// Has a process of its own write the report, and awaits that, but not much longer than is allowed: nobody
/// can tell how long a directory on a sick file system may take.
void superviseReport(const Settings& settings, const Crash& crash) {
    constexpr std::chrono::seconds kGrace(2);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(settings.seconds);
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    sigprocmask(SIG_BLOCK, &ended, nullptr);
    const pid_t parent = getpid();
    const pid_t worker = fork();
    if (worker < 0) sayError("fork", errno);
    if (worker == 0) {
        dieWith(parent);
        sigprocmask(SIG_UNBLOCK, &ended, nullptr);
        umask(S_IRWXG | S_IRWXO);
        dup2(open("/dev/null", O_RDWR | O_CLOEXEC), STDIN_FILENO);  // The image is not for this one to hold.
        if (report(settings, crash, deadline)) _exit(EXIT_SUCCESS);
        say("no report on process " + std::to_string(crash.pid));
        _exit(EXIT_FAILURE);
    }
    while (worker > 0 && waitpid(worker, nullptr, WNOHANG) == 0) {
        const int left = millisecondsUntil(deadline + kGrace);
        const timespec limit = {left / 1000, left % 1000 * 1000000L};
        if (left == 0 || (sigtimedwait(&ended, nullptr, &limit) < 0 && errno == EAGAIN)) {
            say("no report on process " + std::to_string(crash.pid) + ", which is kept no longer");
            kill(worker, SIGKILL);
            break;
        }
    }
    sigprocmask(SIG_UNBLOCK, &ended, nullptr);
}

int handle(int argc, char* argv[]) {
    Settings settings;
    Crash crash;
    settings.zorbel = defaultZorbel();
    const auto status = parse(argc, argv, settings, crash);
    if (!status) superviseReport(settings, crash);
    if (settings.then != nullptr) {
        // The image is untouched so far: standard input is the command's own.
        execv(settings.then[0], settings.then);
        sayError(settings.then[0], errno);
        return EXIT_FAILURE;
    }
    // Nobody wants the image, and once we are gone the kernel stops writing it. To read it would make the
    // process read all its memory from swap.
    return status.value_or(EXIT_SUCCESS);
}

}  // namespace

}  // namespace zorbel

int main(int argc, char* argv[]) {
    zorbel::openStandardStreams();
    return zorbel::handle(argc, argv);
}
