// Starts processes that have memory in a certain way, for bench/truth, and ends them when its standard input
// is closed or it is ended itself. Prints their process numbers on one line once all of them have what they
// are to have; from then on they only wait. As root. Usage: truth-workload NAME; exits with 77 where this
// machine can't have that.

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/signalfd.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Pids = std::vector<pid_t>;

constexpr std::size_t kMiB = 1UL << 20;
constexpr std::size_t kHuge = 2 * kMiB;
constexpr int kSkipped = 77;

const std::size_t kPageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

int readyPipe[2];  // A process writes its number here when it has all.

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    _exit(1);
}

[[noreturn]] void skip(const char* why) {
    std::fprintf(stderr, "%s\n", why);
    std::exit(kSkipped);
}

[[noreturn]] void stay() {
    const pid_t pid = getpid();
    if (write(readyPipe[1], &pid, sizeof pid) != sizeof pid) fail("pipe");
    for (;;) pause();
}

/// Starts a process that does this and then stays, until the one that has started it ends.
template <typename Body>
void start(Body body) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    body();
    stay();
}

struct Area {
    char* start;
    std::size_t size;

    /// One of equal parts.
    Area part(std::size_t index, std::size_t count) const {
        const std::size_t length = size / count / kPageSize * kPageSize;
        return {start + index * length, length};
    }
    /// Makes each page one like no other.
    void write() const {
        static std::uint64_t serial = 0;
        for (std::size_t i = 0; i < size; i += kPageSize) {
            const std::uint64_t content[] = {static_cast<std::uint64_t>(getpid()), ++serial};
            std::memcpy(start + i, content, sizeof content);
        }
    }
    void read() const {
        for (std::size_t i = 0; i < size; i += kPageSize) *const_cast<volatile char*>(start + i);
    }
    void advise(int advice) const {
        if (madvise(start, size, advice) != 0) fail("madvise");
    }
};

Area map(std::size_t size, int flags, int file = -1, int access = PROT_READ | PROT_WRITE) {
    void* start = mmap(nullptr, size, access, flags, file, 0);
    if (start == MAP_FAILED) fail("mmap");
    return {static_cast<char*>(start), size};
}

/// Private memory of the page size.
Area smallPages(std::size_t size) {
    const Area area = map(size, MAP_PRIVATE | MAP_ANONYMOUS);
    area.advise(MADV_NOHUGEPAGE);
    return area;
}

/// Private memory that becomes huge pages when it is touched.
Area hugePages(std::size_t size) {
    Area area = map(size + kHuge, MAP_PRIVATE | MAP_ANONYMOUS);
    area.start += kHuge - reinterpret_cast<std::uintptr_t>(area.start) % kHuge;
    area.size = size;
    area.advise(MADV_HUGEPAGE);
    return area;
}

/// A file without a name in the directory, with that many pages that have just been written.
int newFile(const char* directory, std::size_t size) {
    const int file = open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (file < 0) fail(directory);
    const std::vector<char> content(size, 'z');
    if (write(file, content.data(), size) != static_cast<ssize_t>(size)) fail(directory);
    return file;
}

int newFileOnDisk(std::size_t size) {
    constexpr const char* kDirectory = "/var/tmp";
    struct statfs system {};
    if (statfs(kDirectory, &system) != 0 || system.f_type == TMPFS_MAGIC) skip("/var/tmp is not on a disk");
    return newFile(kDirectory, size);
}

long numberIn(const std::string& path) {
    std::ifstream file(path);
    long number = -1;
    file >> number;
    return number;
}

/// A setting of the kernel that is put back at the end.
class Setting {
  public:
    Setting(std::string path, long value) : _path(std::move(path)), _before(numberIn(_path)) { _set(value); }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;
    ~Setting() { _set(_before); }

  private:
    void _set(long value) { std::ofstream(_path) << value << std::flush; }

    std::string _path;
    long _before;
};
std::deque<Setting> settings;

void needSwap() {
    std::ifstream swaps("/proc/swaps");
    std::string line;
    std::getline(swaps, line);
    if (!std::getline(swaps, line)) skip("no swap");
}

void needHugePages() {
    std::ifstream enabled("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string line;
    if (!std::getline(enabled, line) || line.find("[never]") != std::string::npos)
        skip("no transparent huge pages");
}

// The workloads. What is on the right of each sum is what the set has, without the few pages of each program
// itself.

void fork32() {  // 256 + 32 * 25.6 = 1075.2 MiB
    start([] {
        const Area area = smallPages(256 * kMiB);
        area.write();
        for (std::size_t i = 0; i < 32; ++i) start([&] { area.part(i % 10, 10).write(); });
    });
}

void chain(const Area& area, std::size_t index) {
    if (index == 6) return;
    start([&] {
        area.part(index, 6).write();
        chain(area, index + 1);
    });
}

void chain6() {  // 96 + 6 * 16 = 192 MiB
    start([] {
        const Area area = smallPages(96 * kMiB);
        area.write();
        chain(area, 0);
    });
}

void rewrite() {  // 2 * 64 = 128 MiB
    start([] {
        const Area area = smallPages(64 * kMiB);
        area.write();
        for (int i = 0; i < 8; ++i) start([] {});
        area.write();
    });
}

/// Copies one page of each huge page, another one in each process.
void splitEach(const Area& area, std::size_t process) {
    for (std::size_t i = 0; i < area.size; i += kHuge)
        Area{area.start + i + process * kPageSize, kPageSize}.write();
}

void thpSplit() {  // 128 + 4 * 64 pages = 129 MiB
    needHugePages();
    start([] {
        const Area area = hugePages(128 * kMiB);
        area.write();
        for (std::size_t i = 1; i < 4; ++i) start([&] { splitEach(area, i); });
        splitEach(area, 0);
    });
}

void thpSplitByChild() {  // 128 MiB + 64 pages
    needHugePages();
    start([] {
        const Area area = hugePages(128 * kMiB);
        area.write();
        start([&] { splitEach(area, 0); });
    });
}

void thpSplitSwapped() {  // 128 + 3 * 64 pages = 128.75 MiB
    needHugePages();
    needSwap();
    start([] {
        const Area area = hugePages(128 * kMiB);
        area.write();
        area.part(0, 2).advise(MADV_PAGEOUT);
        for (std::size_t i = 0; i < 3; ++i)
            start([&] {
                splitEach(area, i);
                area.advise(MADV_PAGEOUT);  // Takes only what no other process has.
            });
    });
}

void forkSwap() {  // 128 + 32 + 32 = 192 MiB
    needSwap();
    start([] {
        const Area area = smallPages(128 * kMiB);
        area.write();
        area.part(0, 2).advise(MADV_PAGEOUT);
        start([] {});
        start([&] { area.part(0, 4).read(); });  // Frames, where the others have slots.
        start([&] { area.part(1, 4).write(); });
        start([&] {
            area.part(2, 4).write();
            area.part(2, 4).advise(MADV_PAGEOUT);
        });
    });
}

void memfdQuarters() {  // 256 MiB
    const int file = memfd_create("truth", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, 256 * kMiB) != 0) fail("memfd");
    for (std::size_t i = 0; i < 4; ++i) start([&] { map(256 * kMiB, MAP_SHARED, file).part(i, 4).write(); });
}

void tmpfsPrivate() {  // 64 MiB - 1 page + 3 * 17 pages = 64.2 MiB
    const int file = newFile("/dev/shm", 64 * kMiB);
    for (std::size_t i = 0; i < 3; ++i)
        start([&] {
            const Area area = map(64 * kMiB, MAP_PRIVATE, file);
            area.read();
            Area{area.start, kPageSize}
                .write();  // All copy this one, so that nobody has the file's any more.
            Area{area.start + (i + 1) * kMiB, 16 * kPageSize}.write();
        });
}

void sharedAddressSpace() {  // 128 MiB
    start([] {
        static char stack[16 * 1024];
        smallPages(128 * kMiB).write();
        const auto child = [](void*) -> int {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            stay();
        };
        if (clone(child, stack + sizeof stack, CLONE_VM | SIGCHLD, nullptr) < 0) fail("clone");
    });
}

constexpr std::size_t kMergeable = 64 * kMiB;

void ksm() {  // 3 * 64 MiB of one page, which is kept once for every max_page_sharing (256): 0.75 MiB
    if (access("/sys/kernel/mm/ksm/run", W_OK) != 0) skip("no KSM");
    for (int i = 0; i < 3; ++i)
        start([] {
            const Area area = smallPages(kMergeable);
            std::memset(area.start, 'k', area.size);
            area.advise(MADV_MERGEABLE);
        });
    settings.emplace_back("/sys/kernel/mm/ksm/pages_to_scan", 50'000);
    settings.emplace_back("/sys/kernel/mm/ksm/run", 1);
}

/// Waits until nearly all is merged; what is merged stays so when no more is.
void awaitMerged(const Pids& pids) {
    for (int i = 0; i < 600; ++i) {
        long pages = 0;
        for (const pid_t pid : pids) pages += numberIn("/proc/" + std::to_string(pid) + "/ksm_merging_pages");
        if (pages >= static_cast<long>(pids.size() * kMergeable / kPageSize * 99 / 100)) {
            settings.clear();
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    settings.clear();
    skip("KSM has not merged the pages within a minute");
}

void dirtyFile() {  // Nothing: the pages are the file's.
    const int file = newFileOnDisk(16 * kMiB);
    for (int i = 0; i < 3; ++i) start([&] { map(16 * kMiB, MAP_PRIVATE, file, PROT_READ).read(); });
}

void privateSwappedBack() {  // 32 MiB
    needSwap();
    const int file = newFileOnDisk(32 * kMiB);
    start([&] {
        const Area area = map(32 * kMiB, MAP_PRIVATE, file);
        area.write();
        area.advise(MADV_PAGEOUT);
        area.part(0, 4).read();
        start([&] { area.part(1, 4).read(); });
    });
}

void sysv() {  // 64 MiB
    start([] {
        const int segment = shmget(IPC_PRIVATE, 64 * kMiB, IPC_CREAT | 0600);
        void* address = segment < 0 ? nullptr : shmat(segment, nullptr, 0);
        if (segment < 0 || reinterpret_cast<std::intptr_t>(address) == -1) fail("shmget or shmat");
        shmctl(segment, IPC_RMID, nullptr);  // It goes with the last process that has it.
        const Area area{static_cast<char*>(address), 64 * kMiB};
        for (std::size_t i = 1; i < 4; ++i) start([&] { area.part(i, 4).write(); });
        area.part(0, 4).write();
    });
}

void sharedAnonymous() {  // 64 MiB
    start([] {
        const Area area = map(64 * kMiB, MAP_SHARED | MAP_ANONYMOUS);
        for (std::size_t i = 1; i < 4; ++i) start([&] { area.part(i, 4).write(); });
        area.part(0, 4).write();
    });
}

void lazyFree() {  // 32 + 8 = 40 MiB, and 24 MiB given back
    start([] {
        const Area area = smallPages(64 * kMiB);
        area.write();
        area.part(0, 2).advise(MADV_FREE);
        area.part(0, 8).write();
        start([] {});
    });
}

void locked() {  // 64 + 2 * 16 = 96 MiB
    start([] {
        const Area area = smallPages(64 * kMiB);
        if (mlock(area.start, area.size / 2) != 0) fail("mlock");
        area.write();
        for (std::size_t i = 0; i < 2; ++i) start([&] { area.part(i, 4).write(); });
    });
}

void hugetlb() {  // 16 + 8 + 4 pages of 2 MiB = 56 MiB
    const std::string path = "/sys/kernel/mm/hugepages/hugepages-2048kB/nr_hugepages";
    const long before = numberIn(path);
    if (before < 0) skip("no huge pages of 2 MiB");
    settings.emplace_back(path, before + 32);
    if (numberIn(path) < before + 32) {
        settings.clear();
        skip("the memory for huge pages is not free");
    }
    start([] {
        const Area own = map(16 * kHuge, MAP_PRIVATE | MAP_ANONYMOUS | MAP_HUGETLB);
        const Area shared = map(8 * kHuge, MAP_SHARED | MAP_ANONYMOUS | MAP_HUGETLB);
        own.write();
        shared.write();
        start([&] {
            shared.read();
            own.part(0, 4).write();
        });
    });
}

void zeroPage() {  // 1 MiB
    for (int i = 0; i < 2; ++i)
        start([] {
            smallPages(64 * kMiB).read();
            hugePages(64 * kMiB).read();
            smallPages(kMiB / 2).write();
        });
}

struct Workload {
    const char* name;
    std::size_t processes;
    void (*start)();
    void (*settle)(const Pids&) = [](const Pids&) {};
};

constexpr Workload kWorkloads[] = {
    {"fork32", 33, fork32},
    {"chain6", 7, chain6},
    {"rewrite", 9, rewrite},
    {"thp-split", 4, thpSplit},
    {"thp-split-child", 2, thpSplitByChild},
    {"thp-split-zram", 4, thpSplitSwapped},
    {"fork-swap", 5, forkSwap},
    {"memfd-quarters", 4, memfdQuarters},
    {"tmpfs-private", 3, tmpfsPrivate},
    {"vfork", 2, sharedAddressSpace},
    {"ksm", 3, ksm, awaitMerged},
    {"dirty-file", 3, dirtyFile},
    {"private-swapped-back", 2, privateSwappedBack},
    {"sysv", 4, sysv},
    {"shared-anon", 4, sharedAnonymous},
    {"lazyfree", 2, lazyFree},
    {"locked", 3, locked},
    {"hugetlb", 2, hugetlb},
    {"zero-page", 2, zeroPage},
};

/// Ends what was started, and what that has started, and puts the settings back.
[[noreturn]] void leave(int status) {
    std::ifstream children("/proc/thread-self/children");
    for (pid_t pid = 0; children >> pid;) kill(pid, SIGKILL);
    while (wait(nullptr) > 0 || errno == EINTR) {
    }
    settings.clear();
    std::exit(status);
}

/// Waits until something can be read; false if it is a signal that came, or nothing does.
bool await(int file, int signals, int milliseconds) {
    pollfd files[] = {{file, POLLIN, 0}, {signals, POLLIN, 0}};
    return poll(files, 2, milliseconds) > 0 && files[1].revents == 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    const auto workload = std::find_if(std::begin(kWorkloads), std::end(kWorkloads), [&](const Workload& w) {
        return argc == 2 && std::string(w.name) == argv[1];
    });
    if (workload == std::end(kWorkloads)) {
        std::fprintf(stderr, "Usage: truth-workload NAME, one of:");
        for (const Workload& w : kWorkloads) std::fprintf(stderr, " %s", w.name);
        std::fprintf(stderr, "\n");
        return 1;
    }
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&ending, signal);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    struct sigaction onlyEnds {};
    onlyEnds.sa_handler = SIG_DFL;
    onlyEnds.sa_flags = SA_NOCLDSTOP;  // They may be stopped.
    sigaction(SIGCHLD, &onlyEnds, nullptr);
    const int signals = signalfd(-1, &ending, SFD_CLOEXEC);
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // For those whose parents end before them.
    if (pipe(readyPipe) != 0 || signals < 0) fail("pipe or signalfd");

    workload->start();
    Pids pids;
    while (pids.size() < workload->processes) {
        pid_t pid = 0;
        if (!await(readyPipe[0], signals, 120'000) || read(readyPipe[0], &pid, sizeof pid) != sizeof pid) {
            std::fprintf(stderr, "truth-workload: not all processes came up\n");
            leave(1);
        }
        pids.push_back(pid);
    }
    workload->settle(pids);
    std::sort(pids.begin(), pids.end());
    for (const pid_t pid : pids) std::printf("%d ", pid);
    std::printf("\n");
    std::fflush(stdout);
    for (char byte = 0; await(STDIN_FILENO, signals, -1) && read(STDIN_FILENO, &byte, 1) > 0;) {
    }
    leave(0);
}
