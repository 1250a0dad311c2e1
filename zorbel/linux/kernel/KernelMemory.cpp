#include "linux/kernel/KernelMemory.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "base/Files.h"
#include "base/TextCursor.h"
#include "base/Utf8.h"
#include "linux/process/PageSize.h"
#include "model/KernelKinds.h"

namespace zorbel {

namespace {

using Record = MemoryInfoRecord;

constexpr std::uint64_t number(KernelTag tag) { return static_cast<std::uint64_t>(tag); }
constexpr std::uint64_t number(KernelCounter counter) { return static_cast<std::uint64_t>(counter); }

/// We number modules and functions ourselves, from these numbers on. Module numbers start above kMlock, which
/// means locked memory in every kind of site. Function numbers never equal a kernel address.
constexpr std::uint64_t kFirstModule = number(KernelTag::kMlock) + 1;
constexpr std::uint64_t kFirstFunction = std::uint64_t{1} << 40;

/// Functions that allocate thread stacks, in any kernel version.
bool allocatesStacks(std::string_view function) {
    constexpr std::string_view kNames[] = {"_do_fork",         "alloc_thread_stack_node", "copy_process",
                                           "create_io_thread", "dup_task_struct",         "fork_idle",
                                           "kernel_clone",     "kernel_thread",           "user_mode_thread",
                                           "vhost_task_create"};
    return std::find(std::begin(kNames), std::end(kNames), function) != std::end(kNames);
}

/// Functions that allocate memory for modules. Some of it is for other code that the kernel generates.
bool allocatesModules(std::string_view function) {
    constexpr std::string_view kNames[] = {"layout_and_allocate", "load_module", "module_alloc",
                                           "module_memory_alloc", "move_module"};
    return function.starts_with("execmem_") ||
           std::find(std::begin(kNames), std::end(kNames), function) != std::end(kNames);
}

template <std::size_t size>
void copyText(char (&field)[size], std::string_view text) {
    const std::string shown = printable(text, size);
    std::memcpy(field, shown.data(), shown.size());
}

/// Adds up the first number of each line that starts with the word; 0 if there is no such line.
std::uint64_t sumBehind(std::string_view text, std::string_view word) {
    std::uint64_t sum = 0;
    while (!text.empty()) {
        std::string_view line = takeLine(text);
        if (takeWord(line) == word) sum += takeNumber(line).value_or(0);
    }
    return sum;
}

/// Bytes of an item of meminfo, which shows KiB.
std::uint64_t sizeIn(std::string_view meminfo, const std::string& item) {
    return sumBehind(meminfo, item + ":") * 1024;
}

}  // namespace

KernelMemory::KernelMemory(const KernelTexts& texts, std::uint64_t pageSize, std::uint64_t mappedByTargets) {
    _addZones(texts.slabinfo, pageSize);
    _addModules(texts.modules);
    _addFunctions(texts.vmallocinfo, pageSize, mappedByTargets);
    _findSources(texts.allocinfo);
    _addTags(texts);
    _addCounters(texts, pageSize);
}

MemoryInfoRecord& KernelMemory::_add(std::uint64_t flags, std::uint64_t site, std::uint64_t size) {
    Record& record = _records.emplace_back();
    record.flags = flags;
    record.site = site;
    record.size = size;
    if ((flags & (Record::kWired | Record::kHidden)) == Record::kWired) _wiredSize += size;
    return record;
}

/// Line format: "name active total size each pages : tunables ... : slabdata active slabs ...". "size" is the
/// bytes of one object; "each" and "pages" are the objects and pages of one slab.
void KernelMemory::_addZones(std::string_view slabinfo, std::uint64_t pageSize) {
    constexpr std::string_view kSlabs = ": slabdata";
    while (!slabinfo.empty()) {
        std::string_view line = takeLine(slabinfo);
        const std::size_t slabs = line.find(kSlabs);
        if (line.starts_with('#') || slabs == std::string_view::npos) continue;
        std::string_view data = line.substr(slabs + kSlabs.size());
        const std::string_view name = takeWord(line);
        const auto active = takeNumber(line);
        const auto total = takeNumber(line);
        const auto size = takeNumber(line);
        const auto each = takeNumber(line);
        const auto pages = takeNumber(line);
        const auto activeSlabs = takeNumber(data);
        const auto allSlabs = takeNumber(data);
        if (!active || !total || !size || !each || !pages || !activeSlabs || !allSlabs) continue;
        copyText(_zoneNames.emplace_back().mzn_name, name);
        ZoneInfoRecord& zone = _zones.emplace_back();
        zone.mzi_count = *active;
        zone.mzi_elem_size = *size;
        zone.mzi_cur_size = *allSlabs * *pages * pageSize;
        const std::uint64_t used = *active * *size;
        zone.mzi_collectable = zone.mzi_cur_size - std::min(used, zone.mzi_cur_size);
        _zonesSize += zone.mzi_cur_size;
    }
}

/// Line format: "name size users ...". The load tag is the module's position in the list.
void KernelMemory::_addModules(std::string_view modules) {
    while (!modules.empty()) {
        std::string_view line = takeLine(modules);
        const std::string_view name = takeWord(line);
        const auto size = takeNumber(line);
        if (!size) continue;
        const std::uint64_t tag = kFirstModule + _modules.size();
        _modules.push_back({printable(name), tag});
        _add(Record::kModuleSite | Record::kWired, tag, *size);
    }
}

/// Line format: "start-end size function+offset/length [module] pages=n ...". An area without pages only maps
/// memory that is counted elsewhere.
/// "user" marks an area that processes may map.
void KernelMemory::_addFunctions(std::string_view vmallocinfo, std::uint64_t pageSize,
                                 std::uint64_t mappedByTargets) {
    std::map<std::string_view, std::uint64_t> sizes;
    while (!vmallocinfo.empty()) {
        std::string_view line = takeLine(vmallocinfo);
        std::uint64_t size = numberBehind(line, " pages=").value_or(0) * pageSize;
        if (line.find(" user") != std::string_view::npos) {
            const std::uint64_t mapped = std::min(size, mappedByTargets);
            size -= mapped;
            mappedByTargets -= mapped;
        }
        takeWord(line);
        takeWord(line);
        const std::string_view caller = takeWord(line);
        const bool isAddress = caller.starts_with("0x");
        if (size == 0 || (!isAddress && caller.find('+') == std::string_view::npos)) continue;
        // Compilers append suffixes such as ".isra.0".
        const std::string_view function = caller.substr(0, caller.find_first_of("+."));
        // A kernel without symbols shows addresses. Its areas of exactly the stack size are stacks.
        const bool isStack = isAddress ? size == kernelStackSize() : allocatesStacks(function);
        if (!isStack) sizes[function] += size;
    }
    std::uint64_t modules = _wiredSize;  // Only modules have been added so far.
    for (auto& [function, size] : sizes) {
        if (!allocatesModules(function)) continue;
        const std::uint64_t told = std::min(size, modules);
        size -= told;
        modules -= told;
    }
    for (const auto& [function, size] : sizes) {
        if (size == 0) continue;
        std::uint64_t site = 0;
        if (function.starts_with("0x")) {
            std::string_view digits = function.substr(2);
            site = takeNumber(digits, 16).value_or(0);
        } else {
            site = kFirstFunction + _functions.size();
            _functions.push_back({printable(function), std::nullopt});
        }
        _add(Record::kAddressSite | Record::kWired, site, size);
    }
}

/// Line format: "size calls path:line [module] func:function". For each function, keeps the source line that
/// holds the most memory.
void KernelMemory::_findSources(std::string_view allocinfo) {
    constexpr std::string_view kFunction = " func:";
    struct Place {
        Function* function;
        std::uint64_t size = 0;
    };
    std::unordered_map<std::string_view, Place> functions;
    for (Function& function : _functions) functions[function.name] = {&function};
    while (!functions.empty() && !allocinfo.empty()) {
        std::string_view line = takeLine(allocinfo);
        const std::size_t label = line.find(kFunction);
        if (label == std::string_view::npos) continue;
        std::string_view name = line.substr(label + kFunction.size());
        const auto found = functions.find(takeUpTo(name, ' '));
        const auto size = takeNumber(line);
        if (found == functions.end() || !size || *size <= found->second.size || !takeNumber(line)) continue;
        found->second.size = *size;
        std::string_view place = takeWord(line);
        const std::string_view path = takeUpTo(place, ':');
        found->second.function->source = {printable(path),
                                          static_cast<unsigned>(takeNumber(place).value_or(0))};
    }
}

void KernelMemory::_addTags(const KernelTexts& texts) {
    const std::uint64_t slabs = sizeIn(texts.meminfo, "Slab");
    std::uint64_t compressed = sizeIn(texts.meminfo, "Zswap");
    for (const std::string& stats : texts.zramStats) {
        std::string_view figures = stats;  // Original size, compressed size, memory used, and more.
        takeNumber(figures);
        takeNumber(figures);
        compressed += takeNumber(figures).value_or(0);
    }
    const std::pair<KernelTag, std::uint64_t> sizes[] = {
        {KernelTag::kStack, sizeIn(texts.meminfo, "KernelStack")},
        {KernelTag::kCpu, sizeIn(texts.meminfo, "Percpu")},
        {KernelTag::kPte, sizeIn(texts.meminfo, "PageTables") + sizeIn(texts.meminfo, "SecPageTables")},
        // Slab memory outside of any zone: objects too large for a zone.
        {KernelTag::kKalloc, slabs - std::min(slabs, _zonesSize)},
        {KernelTag::kCompressor, compressed},
        {KernelTag::kMlock, sizeIn(texts.meminfo, "Mlocked")},
    };
    for (const auto& [tag, size] : sizes) _add(Record::kTagSite | Record::kWired, number(tag), size);
    _add(Record::kTagSite | Record::kWired | Record::kHidden, number(KernelTag::kZone), slabs);
}

void KernelMemory::_addCounters(const KernelTexts& texts, std::uint64_t pageSize) {
    const auto size = [&](const char* label) { return sizeIn(texts.meminfo, label); };
    const std::uint64_t managed = sumBehind(texts.zoneinfo, "managed") * pageSize;
    const std::uint64_t present = sumBehind(texts.zoneinfo, "present") * pageSize;
    const std::uint64_t wired = _wiredSize + _zonesSize;
    // The rest, such as pages that a driver holds: used memory minus all known memory. Each CPU keeps some
    // free pages ("count:" in zoneinfo). SwapCached is not subtracted: processes map most of those pages, so
    // AnonPages includes them.
    const std::uint64_t atHand = sumBehind(texts.zoneinfo, "count:") * pageSize;
    const std::uint64_t used = size("MemTotal") - std::min(size("MemFree"), size("MemTotal"));
    const std::uint64_t known = size("Buffers") + size("Cached") + size("AnonPages") + size("Hugetlb") +
                                atHand + wired - size("Mlocked");
    const std::pair<KernelCounter, std::uint64_t> counts[] = {
        {KernelCounter::kManaged, managed},
        {KernelCounter::kReserved, present - std::min(managed, present)},
        {KernelCounter::kWired, wired},
        {KernelCounter::kMapKernel, size("VmallocUsed")},
        {KernelCounter::kMapZone, size("Slab")},
    };
    for (const auto& [counter, bytes] : counts) _add(Record::kCounter, number(counter), 0).mapped = bytes;
    Record& unknown = _add(Record::kCounter | Record::kNamed, number(KernelCounter::kFirstOfOurOwn), 0);
    copyText(unknown.name, "VM_KERN_COUNT_UNACCOUNTED");
    unknown.mapped = used - std::min(known, used);
}

bool KernelMemory::release(const void* array) {
    const auto releaseIf = [array](auto& records) {
        if (records.empty() || records.data() != array) return false;
        std::remove_reference_t<decltype(records)>().swap(records);
        return true;
    };
    return releaseIf(_zoneNames) || releaseIf(_zones) || releaseIf(_records);
}

const KernelMemory::Function* KernelMemory::_functionOfSite(std::uint64_t site) const {
    const std::uint64_t index = site - kFirstFunction;
    return index < _functions.size() ? &_functions[index] : nullptr;
}

std::optional<std::string> KernelMemory::symbolOfSite(std::uint64_t site) const {
    const Function* function = _functionOfSite(site);
    return function != nullptr ? std::optional(function->name) : std::nullopt;
}

std::optional<SourceLocation> KernelMemory::sourceOfSite(std::uint64_t site) const {
    const Function* function = _functionOfSite(site);
    return function != nullptr ? function->source : std::nullopt;
}

Result<KernelTexts> readKernelTexts(const SystemRoot& root) {
    KernelTexts texts;
    const std::pair<const char*, std::string*> files[] = {
        {"/slabinfo", &texts.slabinfo},   {"/vmallocinfo", &texts.vmallocinfo},
        {"/allocinfo", &texts.allocinfo}, {"/modules", &texts.modules},
        {"/meminfo", &texts.meminfo},     {"/zoneinfo", &texts.zoneinfo},
    };
    for (const auto& [path, text] : files) {
        auto contents = readWholeFile((root.proc + path).c_str(), AT_FDCWD);
        if (!contents && contents.error().code != ENOENT) return contents.error();
        if (contents) *text = *std::move(contents);
    }
    std::error_code error;
    for (std::filesystem::directory_iterator device(root.sys + "/block", error);
         !error && device != std::filesystem::directory_iterator(); device.increment(error)) {
        if (!device->path().filename().string().starts_with("zram")) continue;
        if (auto contents = readWholeFile((device->path() / "mm_stat").c_str(), AT_FDCWD))
            texts.zramStats.push_back(*std::move(contents));
    }
    return texts;
}

}  // namespace zorbel
