// Takes memory, for bench/compare, and keeps it until its standard input is closed:
//
//     fill small|huge MIB [CHILDREN]    pages of the page size or huge ones, all touched; and forks that
//     share them fill regions COUNT                as many mappings of a page each
//
// Prints the process numbers on one line when all is there.

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const std::size_t kPageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
constexpr std::size_t kHuge = 2UL << 20;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

char* map(std::size_t size, int advice) {
    void* start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start == MAP_FAILED || madvise(start, size, advice) != 0) fail("mmap or madvise");
    return static_cast<char*>(start);
}

void touch(char* start, std::size_t size) {
    for (std::size_t i = 0; i < size; i += kPageSize) start[i] = 1;
}

void makeRegions(std::size_t count) {
    char* start = map(count * kPageSize, MADV_NOHUGEPAGE);
    touch(start, count * kPageSize);
    // Every second page has another protection, which keeps the kernel from merging them.
    for (std::size_t i = 0; i < count; i += 2)
        if (mprotect(start + i * kPageSize, kPageSize, PROT_READ) != 0)
            fail("more mappings than vm.max_map_count allows");
}

void makePages(std::size_t size, bool isHuge) {
    char* start = map(size + kHuge, isHuge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
    start += kHuge - reinterpret_cast<std::uintptr_t>(start) % kHuge;
    touch(start, size);
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string what = argc > 2 ? argv[1] : "";
    const std::size_t number = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 0;
    if (what == "regions") {
        makeRegions(number);
    } else if (what == "small" || what == "huge") {
        makePages(number << 20, what == "huge");
    } else {
        std::fprintf(stderr, "Usage: fill small|huge MIB [CHILDREN] | fill regions COUNT\n");
        return 1;
    }
    const pid_t parent = getpid();
    std::printf("%d", parent);
    std::fflush(stdout);
    for (int i = 0; i < (argc > 3 ? std::atoi(argv[3]) : 0); ++i) {
        const pid_t pid = fork();
        if (pid < 0) fail("fork");
        if (pid > 0) {
            std::printf(" %d", pid);
            continue;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) return 1;
        for (;;) pause();
    }
    std::printf("\n");
    std::fflush(stdout);
    for (char byte = 0; read(STDIN_FILENO, &byte, 1) > 0;) {
    }
}
