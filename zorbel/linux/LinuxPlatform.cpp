#include "linux/LinuxPlatform.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "base/Parallel.h"
#include "base/TextCursor.h"
#include "base/Utf8.h"
#include "linux/Settlement.h"
#include "linux/process/PageSize.h"
#include "linux/process/ProcessDirectory.h"
#include "linux/process/VmStatistics.h"
#include "memgraph/MemoryGraph.h"

namespace zorbel {

namespace {

constexpr KernReturn kErrnoBase = kernReturnFromErrno(0);

/// Descriptors to leave free: some for standard streams and the like, and some for each worker. A worker has
/// at most three files of a process open, and one or two directories.
constexpr unsigned kSpareDescriptors = 32;
constexpr unsigned kWorkerDescriptors = 6;

constexpr const char* kSelfRegionZorbel = "vm.self_region_zorbel";

FileDescriptor openProcessDirectory(const SystemRoot& root, std::int32_t pid) {
    return openDirectory(root.ofProcess(pid).c_str(), AT_FDCWD);
}

bool saysGone(int error) { return error == ENOENT || error == ESRCH; }

std::optional<ProcessStat> readStat(int processDirectory) {
    const auto text = readWholeFile("stat", processDirectory);
    return text ? parseProcessStat(*text) : std::nullopt;
}

std::optional<ProcessStat> readStatOf(const SystemRoot& root, std::int32_t pid) {
    const auto text = readWholeFile(root.ofProcess(pid, "/stat").c_str(), AT_FDCWD);
    return text ? parseProcessStat(*text) : std::nullopt;
}

template <std::size_t size>
void copyText(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

/// The number of a thread, given its place "task/TID/" below its process.
std::int32_t threadOfPlace(const std::string& place) {
    return static_cast<std::int32_t>(std::strtol(place.c_str() + place.find('/') + 1, nullptr, 10));
}

/// Whether the number is the id of a thread other than the first one of its process. /proc has a directory
/// for such a thread, but does not list it.
bool isThread(std::int32_t pid) {
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return !process.isOpen() && (errno == EINVAL || errno == ENOENT);
}

/// Kernel threads, in ascending order: the children of process 2, which starts them all. Nothing where those
/// can't be seen, as in a container.
std::vector<std::int32_t> kernelThreads(const SystemRoot& root) {
    constexpr std::int32_t kThreadDaemon = 2;
    std::vector<std::int32_t> threads;
    const FileDescriptor directory = openProcessDirectory(root, kThreadDaemon);
    if (!directory.isOpen()) return threads;
    const auto stat = readStat(directory.get());
    if (!stat || (stat->flags & ProcessStat::kKernelThread) == 0) return threads;
    threads.push_back(kThreadDaemon);
    const auto text = readWholeFile("task/2/children", directory.get());
    for (std::string_view rest = text ? std::string_view(*text) : ""; !rest.empty();)
        if (const auto pid = takeNumber(rest))
            threads.push_back(static_cast<std::int32_t>(*pid));
        else
            break;
    std::ranges::sort(threads);
    return threads;
}

BsdInfoRecord recordOfKernel() {
    BsdInfoRecord record;
    record.pbi_flags = BsdInfoRecord::kFlagSystem | BsdInfoRecord::kFlag64Bit;
    copyText(record.pbi_comm, "kernel");
    copyText(record.pbi_name, "kernel");
    return record;
}

/// The number in an environment variable; 0 if it is not set or is not a number.
std::int32_t numberInEnvironment(const char* variable) {
    const char* text = std::getenv(variable);
    if (text == nullptr) return 0;
    const char* end = text + std::strlen(text);
    std::int32_t number = 0;
    const auto [parsed, error] = std::from_chars(text, end, number);
    return error == std::errc() && parsed == end ? number : 0;
}

/// Whether the descriptor is a directory /proc/PID of a process that still has memory.
bool isProcessDirectory(int fd) {
    struct statfs system {};
    if (fstatfs(fd, &system) != 0 || system.f_type != PROC_SUPER_MAGIC) return false;
    return anyTask(fd, [fd](const std::string& place) {
        const auto text = readWholeFile((place + "stat").c_str(), fd);
        const auto stat = text ? parseProcessStat(*text) : std::nullopt;
        return stat && !stat->hasEnded() && (stat->flags & ProcessStat::kKernelThread) == 0;
    });
}

/// Whether any page of a process may be one that KSM has merged. The kernel counts those of each process, but
/// a new child has all of its parent's and a count of 0. Only regions can have them that have asked for it
/// (MADV_MERGEABLE), and children inherit that; from Linux 6.14 on, the kernel says whether there is such a
/// region.
bool mayHaveMergedPages(int processDirectory) {
    const auto text = readWholeFile("ksm_stat", processDirectory);
    return !text || text->find("ksm_mergeable: no\n") == std::string::npos;
}

/// Raises the soft limit. Tasks keep only descriptors below the returned number.
int raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t spare = kSpareDescriptors + kWorkerDescriptors * std::thread::hardware_concurrency();
    return static_cast<int>(std::clamp<rlim_t>(limit.rlim_cur, spare, INT32_MAX) - spare);
}

/// An argument area with the path only: no caller needs the arguments.
std::string areaOf(const std::string& path) {
    constexpr std::size_t kCountSize = 4;
    return std::string(kCountSize, '\0') + printable(path) + '\0';
}

}  // namespace

LinuxPlatform::TaskDirectory::TaskDirectory(const Task& task, const SystemRoot& root)
    : _fd(task.directory.get()) {
    if (_fd >= 0) return;
    _opened = openProcessDirectory(root, task.pid);
    if (!_opened.isOpen()) return;
    const auto stat = readStat(_opened.get());
    if (stat && stat->startTime == task.startTime) _fd = _opened.get();
}

LinuxPlatform::LinuxPlatform(Diagnostics& diagnostics, SystemRoot root)
    : _diagnostics(diagnostics),
      _root(std::move(root)),
      _mostDescriptors(raiseDescriptorLimit()),
      _fileSystems(_root),
      _sharedFiles(_mostDescriptors),
      _frameFlags(_root) {}
LinuxPlatform::~LinuxPlatform() = default;

std::uint32_t LinuxPlatform::vm_kernel_page_size() const {
    return static_cast<std::uint32_t>(sysconf(_SC_PAGESIZE));
}

bool LinuxPlatform::proc_listallpids(std::vector<std::int32_t>& pids) {
    const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir(_root.proc.c_str()), &closedir);
    if (!proc) return false;
    const std::vector<std::int32_t> threads = kernelThreads(_root);
    pids = {0};
    while (const dirent* entry = readdir(proc.get())) {
        const char* end = entry->d_name + std::strlen(entry->d_name);
        std::int32_t pid = 0;
        const auto [parsed, error] = std::from_chars(entry->d_name, end, pid);
        if (error == std::errc() && parsed == end && !std::ranges::binary_search(threads, pid))
            pids.push_back(pid);
    }
    std::ranges::sort(pids);
    _listedPids = pids;
    return true;
}

LinuxPlatform::ProcessAhead LinuxPlatform::_readAhead(std::int32_t pid) const {
    ProcessAhead ahead;
    ahead.stat = readStatOf(_root, pid);
    if (!ahead.stat || (ahead.stat->flags & ProcessStat::kKernelThread) != 0) return ahead;
    ahead.code = _open(pid, ahead.task);
    if (ahead.code != kKernSuccess) return ahead;
    ahead.task.stackStart = ahead.stat->stackStart;
    _readStatus(ahead.task);
    return ahead;
}

void LinuxPlatform::willOpen(const std::vector<std::int32_t>& pids) {
    std::vector<std::pair<const std::int32_t, ProcessAhead>*> entries;
    entries.reserve(pids.size());
    _ahead.reserve(pids.size());
    for (const std::int32_t pid : pids)
        if (pid != 0) entries.push_back(&*_ahead.try_emplace(pid).first);
    // The table of descriptors grows while there is a single thread: with several, each step waits for all
    // processors to pass through the scheduler.
    if (const int high = fcntl(0, F_DUPFD, static_cast<int>(entries.size()) + 64); high >= 0) close(high);
    inParallel(entries.size(), processorCount(), [&](std::size_t index) {
        auto& [pid, ahead] = *entries[index];
        ahead = _readAhead(pid);
    });
}

bool LinuxPlatform::proc_pidinfo(std::int32_t pid, BsdInfoRecord& record) {
    if (pid == 0) {
        record = recordOfKernel();
        return true;
    }
    if (!std::ranges::binary_search(_listedPids, pid) && isThread(pid)) return false;
    const auto ahead = _ahead.find(pid);
    const auto stat = ahead != _ahead.end() ? ahead->second.stat : readStatOf(_root, pid);
    if (!stat || (stat->flags & ProcessStat::kKernelThread) != 0) return false;
    _stackStarts[pid] = stat->stackStart;
    record = {};
    record.pbi_pid = static_cast<std::uint32_t>(pid);
    record.pbi_ppid = static_cast<std::uint32_t>(stat->parentPid);
    if (stat->is64bit()) record.pbi_flags |= BsdInfoRecord::kFlag64Bit;
    if (stat->terminal != 0) record.pbi_flags |= BsdInfoRecord::kFlagControllingTerminal;
    copyText(record.pbi_comm, printable(stat->command, sizeof record.pbi_comm));
    copyText(record.pbi_name, printable(stat->command, sizeof record.pbi_name));
    return true;
}

int LinuxPlatform::proc_pidinfo(TaskName task, BsdShortInfoRecord& record) {
    const TaskDirectory directory(_taskNamed(task), _root);
    if (directory.get() < 0) return ESRCH;
    const auto text = readWholeFile("stat", directory.get());
    if (!text) return saysGone(text.error().code) ? ESRCH : text.error().code;
    const auto stat = parseProcessStat(*text);
    if (!stat) return EIO;
    // A process frees its memory before it becomes a zombie. With much memory, that takes a while.
    const bool isEnding = stat->hasEnded() || (stat->flags & ProcessStat::kExiting) != 0;
    record.pbsi_status = isEnding ? BsdShortInfoRecord::kStateZombie : BsdShortInfoRecord::kStateRunning;
    return 0;
}

bool LinuxPlatform::sysctl_procargs(std::int32_t pid, std::string& area) {
    const auto path = pathOfProgram(AT_FDCWD, _root.ofProcess(pid, "/"));
    if (path) area = areaOf(*path);
    return path.has_value();
}

bool LinuxPlatform::sysctl_procargs(TaskName task, std::string& area) {
    const Task& opened = _taskNamed(task);
    if (!opened.program.empty()) {
        area = areaOf(opened.program);
        return true;
    }
    const TaskDirectory directory(opened, _root);
    if (directory.get() < 0) return false;
    const auto path = pathOfProgram(directory.get());
    if (path) area = areaOf(*path);
    return path.has_value();
}

KernReturn LinuxPlatform::_open(std::int32_t pid, Task& opened) const {
    opened.pid = pid;
    opened.directory = openProcessDirectory(_root, pid);
    if (opened.directory.isOpen()) {
        // The link takes the same right as maps, and opening that costs more.
        if (auto path = pathOfProgram(opened.directory.get())) {
            opened.program = *std::move(path);
        } else {
            const FileDescriptor maps = openForReading("maps", opened.directory.get());
            if (!maps.isOpen() && !saysGone(errno)) return kernReturnFromErrno(errno);
        }
        if (opened.directory.get() >= _mostDescriptors) {
            if (const auto stat = readStat(opened.directory.get())) opened.startTime = stat->startTime;
            opened.directory = FileDescriptor();
        }
    } else if (!saysGone(errno)) {
        return kernReturnFromErrno(errno);
    }
    return kKernSuccess;
}

KernReturn LinuxPlatform::task_for_pid(std::int32_t pid, TaskName& task) {
    task = kTaskNull;
    auto ahead = _ahead.extract(pid);
    Task opened;
    const KernReturn code = ahead ? ahead.mapped().code : _open(pid, opened);
    if (code != kKernSuccess) return code;
    if (ahead) opened = std::move(ahead.mapped().task);
    if (const auto known = _stackStarts.find(pid); opened.stackStart == 0 && known != _stackStarts.end())
        opened.stackStart = known->second;
    _tasks.push_back(std::move(opened));
    task = static_cast<TaskName>(_tasks.size());
    return kKernSuccess;
}

KernReturn LinuxPlatform::mach_ports_lookup(std::vector<TaskName>& ports) {
    constexpr int kFirstDescriptor = 3;
    ports.clear();
    if (numberInEnvironment("LISTEN_PID") != getpid() || numberInEnvironment("LISTEN_FDS") < 1)
        return kernReturnFromErrno(ENOENT);
    if (!isProcessDirectory(kFirstDescriptor)) return kKernInvalidArgument;
    fcntl(kFirstDescriptor, F_SETFD, FD_CLOEXEC);
    _tasks.emplace_back().directory = FileDescriptor(kFirstDescriptor);
    ports.push_back(static_cast<TaskName>(_tasks.size()));
    return kKernSuccess;
}

void LinuxPlatform::_readStatus(Task& task) const {
    const TaskDirectory directory(task, _root);
    if (directory.get() < 0) return;
    anyTask(directory.get(), [&](const std::string& place) {
        const auto text = readWholeFile((place + "status").c_str(), directory.get());
        if (text) task.status = parseProcessStatus(*text);
        if (!task.status) return false;
        task.thread = place.empty() ? task.pid : threadOfPlace(place);
        if (task.stackStart != 0) return true;
        // What the kernel says of a first thread that has ended, or of a process that was handed over.
        const auto stat = readWholeFile((place + "stat").c_str(), directory.get());
        const auto parsed = stat ? parseProcessStat(*stat) : std::nullopt;
        if (parsed) task.stackStart = parsed->stackStart;
        return true;
    });
}

const ProcessStatus* LinuxPlatform::_statusOf(TaskName name) {
    if (name == kTaskNull) return nullptr;
    Task& task = _taskNamed(name);
    if (!task.status) _readStatus(task);
    return task.status ? &*task.status : nullptr;
}

KernReturn LinuxPlatform::task_info(TaskName task, KernelMemoryRecord& record) {
    const ProcessStatus* status = _statusOf(task);
    if (status == nullptr) return kMachSendInvalidDest;
    record = {};
    record.total_palloc = status->pageTables + status->threads * kernelStackSize();
    return kKernSuccess;
}

int LinuxPlatform::proc_pid_rusage(TaskName task, ResourceUsageRecord& record) {
    const ProcessStatus* status = _statusOf(task);
    if (status == nullptr) return ESRCH;
    record.ri_phys_zorbel = status->charge();
    record.ri_lifetime_max_phys_zorbel = std::max(status->charge(), status->residentPeak);
    return 0;
}

int LinuxPlatform::proc_get_dirty(std::int32_t /*pid*/, std::uint32_t& flags) {
    flags = 0;
    return 0;
}

/// What all readings need to know: once, when all tasks are open.
void LinuxPlatform::_prepareReading() {
    std::vector<Families::Process> processes;
    processes.reserve(_tasks.size());
    for (Task& task : _tasks) {
        if (!task.status) _readStatus(task);
        processes.push_back({task.thread, task.stackStart, task.status && task.status->swapped != 0});
    }
    _pageAccess = PageAccess::find(_root);
    _families.emplace(processes, _pageAccess.seesFrames(), _frameFlags.isOpen(), [this](std::int32_t thread) {
        const auto stat = readStatOf(_root, thread);
        return stat && stat->stackStart != 0;
    });
    const auto merged = readWholeFile((_root.sys + "/kernel/mm/ksm/pages_shared").c_str(), AT_FDCWD);
    _mergesPages = merged && *merged != "0\n";
    if (const auto statistics = readWholeFile((_root.proc + "/vmstat").c_str(), AT_FDCWD)) {
        const VmStatistics pages = parseVmStatistics(*statistics);
        _hasLazyPages = pages.hasLazyPages;
        std::uint64_t locked = 0;
        for (const Task& task : _tasks) locked += task.status ? task.status->locked / pageSize() : 0;
        _mostLazyPages = pages.lazyPages + std::min(pages.lockedPages, locked);
    }
}

// smaps holds up a process that maps memory, and costs as much as all else. Lazily freed pages are counted by
// the kernel with those of files, so their number is known within a few hundred pages: where there are hardly
// any, only small processes of small runs are looked at for them.
SmapsUse LinuxPlatform::_useOfSmaps(const Task& task) const {
    constexpr std::uint64_t kUncertainty = 256;
    constexpr std::size_t kFewTasks = 16;
    constexpr std::uint64_t kSmallProcess = 64 << 20;
    if (!task.status || task.status->locked != 0) return SmapsUse::kAlways;
    const bool isSmall = _tasks.size() <= kFewTasks && task.status->residentAnonymous <= kSmallProcess;
    const bool mayHaveLazyPages = _hasLazyPages && (_mostLazyPages > kUncertainty || isSmall);
    return mayHaveLazyPages ? SmapsUse::kForLazyPages : SmapsUse::kNever;
}

void LinuxPlatform::readTask(TaskName name) {
    std::call_once(_isReadingPrepared, [this] { _prepareReading(); });
    Task& task = _taskNamed(name);
    const TaskDirectory directory(task, _root);
    if (directory.get() < 0) return;
    ReadingPlan plan;
    plan.lineageUse = _families->useOf(name - 1, _mergesPages && mayHaveMergedPages(directory.get()));
    plan.smapsUse = _useOfSmaps(task);
    if (task.status && _pageAccess.countsExactly)
        plan.anonymousPages = task.status->residentAnonymous / pageSize();
    if (task.status) plan.threads = task.status->threads;
    if (task.status) plan.swappedPages = task.status->swapped / pageSize();
    task.lineages = plan.lineageUse.lineages;
    task.snapshot = std::make_unique<TaskSnapshot>(directory.get(), _services(), plan);
}

void LinuxPlatform::settleTasks() {
    if (_families) _families->settle();
    std::vector<ReadTask> tasks;
    tasks.reserve(_tasks.size());
    for (const Task& task : _tasks) {
        const std::size_t index = tasks.size();
        const std::size_t first = _families ? _families->firstOfAddressSpace(index) : index;
        tasks.push_back({task.snapshot.get(), first, task.lineages, task.stackStart});
    }
    settle(tasks, _services());
    _kernelPagesOfTasks = mappedKernelPages(tasks);
}

void LinuxPlatform::forgetTask(TaskName task) {
    _taskNamed(task).snapshot.reset();
    _taskNamed(task).directory = FileDescriptor();
}

KernReturn LinuxPlatform::mach_vm_region_recurse(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                                 RegionInfoRecord& record) {
    const TaskSnapshot* snapshot = _taskNamed(task).snapshot.get();
    if (snapshot == nullptr) return kMachSendInvalidDest;
    const SnapshotRegion* region = snapshot->regionAtOrAfter(address);
    if (region == nullptr) return snapshot->codeAtEnd();
    address = region->start;
    size = region->size();
    record = region->record();
    return kKernSuccess;
}

KernReturn LinuxPlatform::mach_vm_region(TaskName task, std::uint64_t& address, std::uint64_t& size,
                                         BasicRegionInfoRecord& record) {
    RegionInfoRecord leaf;
    const KernReturn code = mach_vm_region_recurse(task, address, size, leaf);
    record = {leaf.protection, leaf.max_protection, leaf.inheritance,
              leaf.offset,     leaf.behavior,       leaf.user_wired_count};
    return code;
}

KernReturn LinuxPlatform::mach_vm_page_range_query(TaskName task, std::uint64_t address, std::uint64_t size,
                                                   std::int32_t* dispositions, std::uint64_t& count) {
    const Task& opened = _taskNamed(task);
    const TaskDirectory directory(opened, _root);
    if (directory.get() < 0 || !opened.snapshot) return kKernInvalidArgument;
    const std::uint64_t page = vm_kernel_page_size();
    const std::uint64_t inPage = address % page;
    count = std::min(count, (inPage + size + page - 1) / page);
    return opened.snapshot->queryPages(directory.get(), address - inPage, count, dispositions);
}

void LinuxPlatform::forEachSymbolOwner(TaskName task,
                                       const std::function<void(const SymbolOwner&)>& consume) {
    if (const auto& snapshot = _taskNamed(task).snapshot) snapshot->images().forEachOwner(consume);
}

KernReturn LinuxPlatform::mach_vm_purgable_control(TaskName /*task*/, std::uint64_t /*address*/, int& state) {
    state = kPurgeableDeny;
    return kKernSuccess;
}

Name LinuxPlatform::proc_regionfilename(TaskName task, std::uint64_t address) {
    const Task& opened = _taskNamed(task);
    if (!opened.snapshot) return {};
    const SnapshotRegion* region = opened.snapshot->regionAtOrAfter(address);
    return region != nullptr && region->start <= address && region->file != nullptr ? region->file->path
                                                                                    : Name();
}

KernReturn LinuxPlatform::mach_memory_info(KernelMemoryAccount& account) {
    const auto texts = readKernelTexts(_root);
    if (!texts) return kernReturnFromErrno(texts.error().code);
    _kernelMemory = std::make_unique<KernelMemory>(*texts, pageSize(), _kernelPagesOfTasks * pageSize());
    account = _kernelMemory->account();
    return kKernSuccess;
}

KernReturn LinuxPlatform::vm_deallocate(const void* address, std::uint64_t size) {
    const bool isKnown = size == 0 || (_kernelMemory && _kernelMemory->release(address));
    return isKnown ? kKernSuccess : kKernInvalidAddress;
}

std::vector<KernelModuleInfo> LinuxPlatform::OSKextCopyLoadedKextInfo() {
    return _kernelMemory ? _kernelMemory->modules() : std::vector<KernelModuleInfo>();
}

std::optional<std::string> LinuxPlatform::nameOfKernelSymbol(std::uint64_t address) {
    return _kernelMemory ? _kernelMemory->symbolOfSite(address) : std::nullopt;
}

std::optional<SourceLocation> LinuxPlatform::sourceOfKernelAddress(std::uint64_t address) {
    return _kernelMemory ? _kernelMemory->sourceOfSite(address) : std::nullopt;
}

Result<std::unique_ptr<MemoryGraphReader>> LinuxPlatform::openMemoryGraph(std::string_view contents) {
    auto graph = parseMemoryGraph(contents);
    if (!graph) return graph.error();
    const Name capture(graph->capture);
    const auto translate = [&](std::uint32_t& id) {
        if (id != 0) id = _objectIds.idOfSaved(capture, id);
    };
    for (GraphRegion& region : graph->regions) {
        translate(region.object_id);
        for (GraphSharedPart& part : region.shared) translate(part.object_id);
    }
    return std::make_unique<LoadedMemoryGraph>(*std::move(graph));
}

int LinuxPlatform::sysctlbyname(const char* name, std::int32_t* oldValue, const std::int32_t* newValue) {
    // The only setting. It is our own, not the kernel's.
    if (std::strcmp(name, kSelfRegionZorbel) != 0) return ENOENT;
    if (oldValue != nullptr) *oldValue = _selfRegionZorbel;
    if (newValue != nullptr) _selfRegionZorbel = *newValue;
    return 0;
}

std::string LinuxPlatform::mach_error_string(KernReturn code) const {
    switch (code) {
        case kKernSuccess:
            return "Success";
        case kKernInvalidAddress:
            return "Invalid address";
        case kMachSendInvalidDest:
            return "Address space no longer exists";
        default:
            break;
    }
    if (code >= kErrnoBase && code < kMachSendInvalidDest) {
        if (const char* text = strerrordesc_np(static_cast<int>(code - kErrnoBase))) return text;
    }
    return "Unknown error " + std::to_string(code);
}

}  // namespace zorbel
