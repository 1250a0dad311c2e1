#include "e2e/Program.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <utility>

#include "fixtures/Fixture.h"

namespace zorbel::e2e {

namespace {

/// The descriptors become standard input, output and error; -1 keeps one unchanged.
pid_t start(Words command, const std::array<int, 3>& streams, const Preparation& prepare) {
    std::vector<char*> argv;
    for (std::string& word : command) argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    check(pid >= 0, "fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int target = 0; const int stream : streams) dup2(stream, target++);  // None where it is -1.
    if (prepare) {
        const int program = open(argv[0], O_PATH | O_CLOEXEC);
        prepare();
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // A change of the user has forgotten it.
        execveat(program, "", argv.data(), environ, AT_EMPTY_PATH);
    }
    execvp(argv[0], argv.data());
    _exit(127);
}

/// Everything from the current position of the descriptor.
std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    // Reading a terminal fails after its last writer closes it.
    for (ssize_t count = 0; (count = read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(count));
    return text;
}

bool hasOpen(pid_t process, const std::string& path) {
    const std::string descriptors = "/proc/" + std::to_string(process) + "/fd/";
    std::error_code error;
    for (int fd = 0; fd < 32; ++fd)  // More than zorbel opens.
        if (std::filesystem::read_symlink(descriptors + std::to_string(fd), error) == path) return true;
    return false;
}

/// State change of the process, among those asked for. Does not reap it.
int changeOf(pid_t pid, int changes) {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, changes | WNOWAIT);
    return info.si_code;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Row& row) {
    return stream << '{' << row.dirty << ", " << row.swapped << ", " << row.clean << ", " << row.reclaimable
                  << ", " << row.wired << ", " << row.regions << '}';
}

Table Outcome::tableAfter(const Words& texts) const {
    std::size_t start = 0;
    for (const std::string& text : texts) start = std::min(output.find(text, start), output.size());
    std::istringstream lines(output.substr(start));
    Table table;
    for (std::string line; table.count("TOTAL") == 0 && std::getline(lines, line);) {
        Row row;
        int name = 0;
        std::sscanf(line.c_str(), "%ld pages %ld pages %ld pages %ld pages %ld pages %ld    %n", &row.dirty,
                    &row.swapped, &row.clean, &row.reclaimable, &row.wired, &row.regions, &name);
        if (name != 0) table[line.substr(static_cast<std::size_t>(name))] = row;
    }
    return table;
}

Table Outcome::tableOf(pid_t pid) const { return tableAfter({numberOf(pid) + ": "}); }

std::vector<ListedRegion> Outcome::listing() const {
    std::vector<ListedRegion> regions;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        ListedRegion region;
        int name = 0;
        std::sscanf(line.c_str(), "%lx - %lx [%*x] %ld %ld %ld %ld %ld %ld   %n", &region.start, &region.end,
                    &region.size, &region.dirty, &region.swapped, &region.clean, &region.reclaimable,
                    &region.wired, &name);
        if (name == 0) continue;
        region.name = line.substr(static_cast<std::size_t>(name));
        regions.push_back(region);
    }
    return regions;
}

ProgramRun::ProgramRun(Words command, bool isOnTerminal, const Preparation& prepare)
    : _output(memfd_create("output", MFD_CLOEXEC)), _error(memfd_create("error", MFD_CLOEXEC)) {
    int input = -1;
    if (isOnTerminal) {
        close(_output);
        check(openpty(&_terminal, &input, nullptr, nullptr, nullptr) == 0, "openpty");
        _output = input;
        command.insert(command.begin(), {"setsid", "--ctty"});
    }
    _pid = start(std::move(command), {input, _output, _error}, prepare);
    if (isOnTerminal) close(std::exchange(_output, -1));
}

ProgramRun::~ProgramRun() {
    for (const int fd : {_output, _error, _terminal}) close(fd);
    if (_pid != 0 && kill(_pid, SIGKILL) == 0) waitpid(_pid, nullptr, 0);
}

bool ProgramRun::stopWhileReading(pid_t target) const {
    const std::string maps = "/proc/" + std::to_string(target) + "/maps";
    while (!hasOpen(_pid, maps))
        if (changeOf(_pid, WEXITED | WNOHANG) != 0) return false;
    kill(_pid, SIGSTOP);
    return changeOf(_pid, WSTOPPED | WEXITED) == CLD_STOPPED && hasOpen(_pid, maps);
}

void ProgramRun::interrupt() const {
    check(_terminal < 0 ? kill(_pid, SIGINT) == 0 : write(_terminal, "\x03", 1) == 1, "interrupt");
}

Outcome ProgramRun::finish() {
    kill(_pid, SIGCONT);
    Outcome outcome;
    if (_terminal >= 0) outcome.output = readAll(_terminal);
    waitpid(std::exchange(_pid, 0), &outcome.status, 0);
    for (const auto& [fd, text] : {std::pair(_output, &outcome.output), std::pair(_error, &outcome.error)})
        if (lseek(fd, 0, SEEK_SET) == 0) *text = readAll(fd);
    return outcome;
}

Words wide(const std::vector<pid_t>& pids) {
    Words arguments = {"-w", "-f", "pages"};
    for (const pid_t pid : pids) arguments.insert(arguments.end(), {"--pid", std::to_string(pid)});
    return arguments;
}

Outcome runZorbel(const Words& arguments, Words program, const Preparation& prepare) {
    program.insert(program.end(), arguments.begin(), arguments.end());
    return ProgramRun(std::move(program), false, prepare).finish();
}

}  // namespace zorbel::e2e
