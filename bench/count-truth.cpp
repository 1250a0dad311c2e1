// Counts the memory that a set of processes is charged for, in bytes, from their page tables and from what
// the kernel says of each frame: every page once, however many of them have it. Simple and slow, and apart
// from what it is to check: nothing of zorbel is used here. As root, on processes that are stopped; Linux 6.5
// or later.
//
//     count-truth [--table] [--swap-in] PID...
//
// --table prints the parts as well. --swap-in first reads back every page that is in swap. A page can be in
// memory for one process and still in swap for another (it is in the swap cache then), and nothing tells
// which frame belongs to which slot, so that both are counted. Once all are read back, each page has just one
// frame and the sum is exact.

#include <fcntl.h>
#include <linux/kcmp.h>
#include <linux/kernel-page-flags.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using Word = std::uint64_t;
using Pages = std::unordered_set<Word>;
using Ranges = std::vector<std::pair<Word, Word>>;

// An entry of /proc/PID/pagemap: Documentation/admin-guide/mm/pagemap.rst of the kernel.
constexpr Word kPresent = 1ULL << 63;
constexpr Word kInSwap = 1ULL << 62;
constexpr Word kFrame = (1ULL << 55) - 1;    // Or type and offset of the swap slot.
constexpr Word kSwapType = (1ULL << 5) - 1;  // The number of the swap device.
constexpr Word kSwapDevices = 23;  // Types from here on are the kernel's: pages that move, guards, faults.

const Word kPageSize = static_cast<Word>(sysconf(_SC_PAGESIZE));

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "count-truth: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

int openOrFail(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) fail(path);
    return file;
}

bool has(Word flags, unsigned bit) { return (flags >> bit & 1) != 0; }

/// The KPF_ bits of a frame.
Word flagsOf(Word frame) {
    static const int file = openOrFail("/proc/kpageflags");
    Word flags = 0;
    if (pread(file, &flags, sizeof flags, static_cast<off_t>(frame * sizeof flags)) != sizeof flags)
        fail("/proc/kpageflags");
    return flags;
}

enum class Backing { kNone, kTmpfs, kDisk };

struct Mapping {
    Word start = 0, end = 0, offset = 0;
    bool isShared = false;
    bool isSegment = false;  // Of System V, whose inode number is its id and may be that of a memfd as well.
    Word lazyPages = 0;      // Pages that may be dropped, as smaps has them.
    std::string file;        // In map_files.
    Backing backing = Backing::kNone;
    Word device = 0, inode = 0;
};

/// What the mapping maps: a file is opened only later, if at all, since opening a device may do anything.
void findBacking(Mapping& mapping) {
    struct stat status {};
    struct statfs system {};
    if (stat(mapping.file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    if (statfs(mapping.file.c_str(), &system) != 0) fail(mapping.file);
    mapping.backing = system.f_type == TMPFS_MAGIC ? Backing::kTmpfs : Backing::kDisk;
    mapping.device = status.st_dev;
    mapping.inode = status.st_ino;
}

std::vector<Mapping> mappingsOf(int pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    std::ifstream smaps(process + "/smaps");
    if (!smaps) fail(process + "/smaps");
    std::vector<Mapping> mappings;
    for (std::string line; std::getline(smaps, line);) {
        Mapping mapping;
        char access[5] = "";
        int path = 0;
        Word kilobytes = 0;
        if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %*u %n", &mapping.start,
                        &mapping.end, access, &mapping.offset, &path) == 4) {
            mapping.isShared = access[3] == 's';
            mapping.isSegment = line.compare(static_cast<std::size_t>(path), 5, "/SYSV") == 0;
            char range[40];
            std::snprintf(range, sizeof range, "%" PRIx64 "-%" PRIx64, mapping.start, mapping.end);
            mapping.file = process + "/map_files/" + range;
            findBacking(mapping);
            mappings.push_back(mapping);
        } else if (std::sscanf(line.c_str(), "LazyFree: %" SCNu64 " kB", &kilobytes) == 1) {
            mappings.back().lazyPages = kilobytes * 1024 / kPageSize;
        }
    }
    return mappings;
}

/// Calls visit(address, entry) for each page of the mapping.
template <typename Visit>
void forEachPage(int pagemap, const Mapping& mapping, Visit visit) {
    std::vector<Word> entries(8192);
    for (Word address = mapping.start; address < mapping.end;) {
        const Word wanted = std::min<Word>(entries.size(), (mapping.end - address) / kPageSize);
        const ssize_t size = pread(pagemap, entries.data(), wanted * sizeof(Word),
                                   static_cast<off_t>(address / kPageSize * sizeof(Word)));
        if (size < 0) fail("pagemap");
        if (size == 0) return;  // Above what processes have: vsyscall.
        for (std::size_t i = 0; i < static_cast<std::size_t>(size) / sizeof(Word); ++i, address += kPageSize)
            visit(address, entries[i]);
    }
}

class Truth {
  public:
    void addProcess(int pid);
    void countObjects();
    Word charge() const;
    void printTable() const;

  private:
    struct Object {
        std::string file;
        Ranges ranges;  // In bytes of the object, as far as mapped.
    };

    /// Whether the page is the process's own: no longer, or never, one of the file.
    bool _addPage(Word entry, const Mapping& mapping);
    void _addMapping(int pagemap, const Mapping& mapping);

    Pages _anonymous, _slots, _lazy, _hugetlb, _dirtyFile;
    std::map<std::tuple<Word, Word, bool>, Object> _objects;
    Word _objectPages = 0, _objectSlots = 0;
    Word _mappingLazy = 0, _mappingNewLazy = 0;  // Of the mapping that is being read.
    Word _rewritten = 0, _inSwapCache = 0, _ksm = 0, _zero = 0, _special = 0;
};

bool Truth::_addPage(Word entry, const Mapping& mapping) {
    if ((entry & kPresent) == 0) {
        if ((entry & kInSwap) == 0) return false;
        if ((entry & kSwapType) >= kSwapDevices) {
            ++_special;
        } else {
            _slots.insert(entry & kFrame);
        }
        return true;
    }
    const Word frame = entry & kFrame;
    if (frame == 0) {
        std::fprintf(stderr, "count-truth: the kernel tells frames to root only\n");
        std::exit(1);
    }
    const Word flags = flagsOf(frame);
    if (has(flags, KPF_ZERO_PAGE)) {
        ++_zero;
        return true;
    }
    if (has(flags, KPF_HUGE)) {
        _hugetlb.insert(frame);
        return true;
    }
    if (has(flags, KPF_ANON)) {
        if (has(flags, KPF_SWAPBACKED)) {
            if (_anonymous.insert(frame).second) {
                _ksm += has(flags, KPF_KSM);
                _inSwapCache += has(flags, KPF_SWAPCACHE);
            }
        } else {
            ++_mappingLazy;
            _mappingNewLazy += _lazy.insert(frame).second;
        }
        return true;
    }
    if (mapping.backing == Backing::kDisk && mapping.isShared && has(flags, KPF_DIRTY))
        _dirtyFile.insert(frame);
    return false;
}

void Truth::_addMapping(int pagemap, const Mapping& mapping) {
    _mappingLazy = _mappingNewLazy = 0;
    Ranges ranges;
    forEachPage(pagemap, mapping, [&](Word address, Word entry) {
        const bool isOwn = _addPage(entry, mapping);
        if (mapping.backing != Backing::kTmpfs || isOwn) return;
        const Word offset = mapping.offset + (address - mapping.start);
        if (!ranges.empty() && ranges.back().second == offset) {
            ranges.back().second += kPageSize;
        } else {
            ranges.emplace_back(offset, offset + kPageSize);
        }
    });
    // A page that was written to since it was given back is charged again, though its frame bears the same
    // flags until the kernel looks at it. Only smaps knows, and only how many there are.
    if (_mappingLazy > mapping.lazyPages)
        _rewritten += std::min(_mappingLazy - mapping.lazyPages, _mappingNewLazy);
    if (ranges.empty()) return;
    Object& object = _objects[{mapping.device, mapping.inode, mapping.isSegment}];
    object.file = mapping.file;
    object.ranges.insert(object.ranges.end(), ranges.begin(), ranges.end());
}

void Truth::addProcess(int pid) {
    const int pagemap = openOrFail("/proc/" + std::to_string(pid) + "/pagemap");
    for (const Mapping& mapping : mappingsOf(pid)) _addMapping(pagemap, mapping);
    close(pagemap);
}

/// Merges ranges that touch or overlap.
Ranges merged(Ranges ranges) {
    std::sort(ranges.begin(), ranges.end());
    Ranges result;
    for (const auto& [start, end] : ranges) {
        if (!result.empty() && start <= result.back().second) {
            result.back().second = std::max(result.back().second, end);
        } else {
            result.emplace_back(start, end);
        }
    }
    return result;
}

void Truth::countObjects() {
    constexpr long kCachestat = 451;  // On all architectures; not in the C library's headers yet.
    struct {
        Word start, size;
    } range{};
    struct {
        Word cached, dirty, writeback, evicted, recentlyEvicted;
    } result{};
    for (const auto& [key, object] : _objects) {
        const int file = openOrFail(object.file);
        for (const auto& [start, end] : merged(object.ranges)) {
            range = {start, end - start};
            if (syscall(kCachestat, file, &range, &result, 0) != 0) fail("cachestat of " + object.file);
            _objectPages += result.cached;
            _objectSlots += result.evicted;  // Nothing but swap evicts a page of tmpfs.
        }
        close(file);
    }
}

Word Truth::charge() const {
    return kPageSize * (_anonymous.size() + _slots.size() + _rewritten + _hugetlb.size() + _dirtyFile.size() +
                        _objectPages + _objectSlots);
}

void Truth::printTable() const {
    const auto print = [](const char* what, Word pages) {
        std::printf("%14" PRIu64 "  %s\n", pages * kPageSize, what);
    };
    print("anonymous", _anonymous.size());
    print("  of which merged by KSM", _ksm);
    print("  of which in the swap cache", _inSwapCache);
    print("anonymous, in swap", _slots.size());
    print("anonymous, given back and rewritten", _rewritten);
    print("hugetlb", _hugetlb.size());
    print("shared memory objects", _objectPages);
    print("shared memory objects, in swap", _objectSlots);
    print("modified pages of files", _dirtyFile.size());
    print("not charged: given back", _lazy.size() - _rewritten);
    print("not charged: zero page, in page tables", _zero);
    print("entries that are no memory", _special);
}

/// The processes, without those that use the address space of one before.
std::vector<int> addressSpaces(const std::vector<int>& pids) {
    std::vector<int> result;
    for (const int pid : pids) {
        const bool isKnown = std::any_of(result.begin(), result.end(), [&](int other) {
            const long order = syscall(SYS_kcmp, pid, other, KCMP_VM, 0, 0);
            if (order < 0) fail("kcmp of " + std::to_string(pid) + " and " + std::to_string(other));
            return order == 0;
        });
        if (!isKnown) result.push_back(pid);
    }
    return result;
}

void swapIn(int pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    const int pagemap = openOrFail(process + "/pagemap");
    const int memory = openOrFail(process + "/mem");
    for (const Mapping& mapping : mappingsOf(pid)) {
        forEachPage(pagemap, mapping, [&](Word address, Word entry) {
            char byte = 0;
            if ((entry & kInSwap) != 0 && (entry & kSwapType) < kSwapDevices &&
                pread(memory, &byte, 1, static_cast<off_t>(address)) != 1)
                fail("reading back a page of " + process);
        });
    }
    close(memory);
    close(pagemap);
}

}  // namespace

int main(int argc, char* argv[]) {
    bool isTable = false;
    bool isSwapIn = false;
    std::vector<int> pids;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--table") {
            isTable = true;
        } else if (argument == "--swap-in") {
            isSwapIn = true;
        } else if (const int pid = std::atoi(argv[i]); pid > 0) {
            pids.push_back(pid);
        } else {
            std::fprintf(stderr, "Usage: count-truth [--table] [--swap-in] PID...\n");
            return 1;
        }
    }
    const std::vector<int> spaces = addressSpaces(pids);
    if (isSwapIn) std::for_each(spaces.begin(), spaces.end(), swapIn);
    Truth truth;
    for (const int pid : spaces) truth.addProcess(pid);
    truth.countObjects();
    if (isTable) truth.printTable();
    std::printf(isTable ? "%14" PRIu64 "  total\n" : "%" PRIu64 "\n", truth.charge());
}
