// The program that the kernel starts for each process that dies by a signal.

#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

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

void say(const std::string& text) { std::fprintf(stderr, "zorbel-corpse-handler: %s\n", text.c_str()); }
void sayError(const std::string& what, int error) { say(what + ": " + std::strerror(error)); }

/// The kernel opens no standard output and error for us. What we and zorbel have to say goes to its log.
void openStandardStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) >= 0) continue;
        if (fd == STDIN_FILENO || open("/dev/kmsg", O_WRONLY) < 0) open("/dev/null", O_RDWR);
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

/// File name of the program, of which the kernel tells only the thread that has died.
std::string programOf(int processDirectory, const Crash& crash) {
    constexpr std::string_view kDeleted = " (deleted)";
    std::string path = readLink("exe", processDirectory).value_or("");
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    const std::string name = printable(path.substr(path.rfind('/') + 1));
    return name.empty() ? crash.threadName : name;
}

std::string hexadecimal(std::uint32_t number) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%x", number);
    return digits;
}

std::uint32_t procFlagsOf(int processDirectory) {
    const auto text = readWholeFile("stat", processDirectory);
    const auto stat = text ? parseProcessStat(*text) : std::nullopt;
    std::uint32_t flags = 0;
    if (!stat || stat->is64bit()) flags |= ZBCorpseProcess::kFlag64Bit;
    if (stat && stat->terminal != 0) flags |= ZBCorpseProcess::kFlagControllingTerminal;
    return flags;
}

/// Becomes zorbel, with the process's directory handed over.
[[noreturn]] void becomeZorbel(const Settings& settings, const Crash& crash, const std::string& program,
                               int processDirectory, int output, const std::string& document) {
    constexpr int kHandedOver = 3;
    dup2(output, STDOUT_FILENO);
    if (processDirectory == kHandedOver)
        fcntl(kHandedOver, F_SETFD, 0);
    else
        dup2(processDirectory, kHandedOver);
    setenv("LISTEN_FDS", "1", 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    const std::string pid = std::to_string(crash.pid);
    const std::string flags = hexadecimal(procFlagsOf(kHandedOver));
    execl(settings.zorbel.c_str(), settings.zorbel.c_str(), "--corpsePid", pid.c_str(), "--corpseName",
          program.c_str(), "--corpseDirtyFlags", "0", "--corpseProcFlags", flags.c_str(), "-v", "-w", "-j",
          document.c_str(), static_cast<char*>(nullptr));
    sayError(settings.zorbel, errno);
    _exit(EXIT_FAILURE);
}

/// Waits for a child, so long and no longer. Whether it has ended well.
bool awaitChild(pid_t child, std::uint32_t seconds) {
    const FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    pollfd ended = {handle.get(), POLLIN, 0};
    const int limit = static_cast<int>(std::min<std::uint64_t>(seconds * std::uint64_t{1000}, INT32_MAX));
    if (handle.isOpen() && poll(&ended, 1, limit) == 0) {
        say("the report took longer than " + std::to_string(seconds) + " s");
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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

/// Writes a report. Only what is complete gets its name.
void report(const Settings& settings, const Crash& crash) {
    const FileDescriptor process(
        open(("/proc/" + std::to_string(crash.pid)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!process.isOpen()) return sayError("process " + std::to_string(crash.pid), errno);
    const ReportDirectory directory(settings.directory);
    if (const int error = directory.make()) return sayError(settings.directory, error);
    const std::string program = programOf(process.get(), crash);
    const std::string path = directory.pathFor(crash.time, crash.pid, program);
    const std::string text = path + ".txt";
    const std::string document = path + ".json";
    const std::string part = ".part";
    const FileDescriptor output(
        open((text + part).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!output.isOpen()) return sayError(text + part, errno);

    const std::string first = headline(crash, program);
    bool isDone = write(output.get(), first.data(), first.size()) == static_cast<ssize_t>(first.size());
    if (!isDone) sayError(text + part, errno);
    const pid_t child = isDone ? fork() : -1;
    if (child == 0) becomeZorbel(settings, crash, program, process.get(), output.get(), document + part);
    isDone = child > 0 && awaitChild(child, settings.seconds);
    if (isDone) {
        for (const std::string& file : {text, document}) std::rename((file + part).c_str(), file.c_str());
        directory.prune(settings.keptReports, settings.keptMiB * std::uint64_t{1024} * 1024);
    } else {
        say("no report on process " + std::to_string(crash.pid));
        for (const std::string& file : {text, document}) unlink((file + part).c_str());
    }
}

int handle(int argc, char* argv[]) {
    Settings settings;
    Crash crash;
    settings.zorbel = defaultZorbel();
    const auto status = parse(argc, argv, settings, crash);
    umask(S_IRWXG | S_IRWXO);
    if (!status) report(settings, crash);
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
