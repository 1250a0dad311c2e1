// Kinds, objects and figures of regions, from smaps to snapshot.

#include "linux/kinds/RegionKinds.h"

#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

#include "base/Files.h"
#include "linux/Settlement.h"
#include "linux/TaskSnapshot.h"

namespace zorbel::test {
namespace {

using enum Tag;

/// Devices that no machine has: ffe:1 is a tmpfs and ffe:2 a disk. ffe:3 is not mounted, like the
/// kernel's internal file systems. ffe:4 is a btrfs and ffe:5 an overlay.
constexpr const char* kMounts =
    "31 28 4094:1 / /srv/dev\\040x rw shared:1 master:2 - tmpfs none rw\n"
    "32 28 4094:2 / / rw - ext4 /dev/vda rw\n"
    "33 28 4094:4 /one /one rw - btrfs /dev/vdb rw,subvol=/one\n"
    "34 28 4094:5 / /two rw - overlay overlay rw,lowerdir=/lower,upperdir=/upper,workdir=/work\n";

class RegionKindsTest : public testing::Test {
  protected:
    ~RegionKindsTest() override { std::filesystem::remove_all(_path); }

    /// A snapshot of a process made of text, in its own IPC namespace.
    TaskSnapshot& snapshotOfText(const std::string& smaps) {
        const std::string process = _path + "/" + std::to_string(_snapshots.size());
        std::filesystem::create_directories(process + "/ns");
        std::ofstream(process + "/ns/ipc");
        std::ofstream(process + "/mountinfo") << kMounts;
        std::ofstream(process + "/smaps") << smaps;
        const FileDescriptor directory = openForReading(process.c_str(), -1);
        TaskSnapshot& snapshot = _snapshots.emplace_back(directory.get(), _services);
        EXPECT_EQ(snapshot.codeAtEnd(), kKernInvalidAddress);
        return snapshot;
    }

    std::vector<SnapshotRegion>& regionsOfText(const std::string& smaps) {
        return snapshotOfText(smaps).regions();
    }

    /// The same for entries without addresses. They get addresses that do not touch.
    std::vector<SnapshotRegion>& regionsOf(const std::vector<std::string>& entries) {
        std::string smaps;
        for (int page = 1000; const std::string& entry : entries) {
            const std::string start = "7f" + std::to_string(++page);
            smaps += start + "0000-" + start + "8000 " + entry + '\n';
        }
        return regionsOfText(smaps);
    }

    /// Gives the objects of all snapshots their ids.
    void settleAll() {
        std::vector<ReadTask> tasks;
        for (TaskSnapshot& snapshot : _snapshots) tasks.push_back({&snapshot, tasks.size(), nullptr});
        settle(tasks, _services);
    }

  private:
    const std::string _path = mkdtemp(std::string("/tmp/zorbel-unit-XXXXXX").data());
    FileSystems _fileSystems;
    FileIdentifier _fileIdentifier{_fileSystems};
    ElfFiles _elfFiles;
    SharedFiles _sharedFiles;
    const FrameFlags _frameFlags{{"/nonexistent", "/nonexistent"}};
    ObjectIds _objectIds;
    const SnapshotServices _services{_fileIdentifier, _elfFiles, _objectIds, _sharedFiles, _frameFlags, {}};
    std::deque<TaskSnapshot> _snapshots;
};

TEST_F(RegionKindsTest, PathsAndFlagsDecideKind) {
    const std::string own = "rw-p 0 00:00 0 ";
    const std::string memory = "rw-s 0 ffe:1 7 ";
    const std::string disk = "rw-s 0 ffe:2 7 ";
    const std::string unmounted = "rw-s 0 ffe:3 7 ";
    const struct {
        Tag tag;
        std::string mapping;
        std::vector<std::string> paths;
        std::string flags = "rd mr ";
    } rows[] = {
        {kSbrk, own, {"[heap]"}},
        {kMallocSmall, own, {"[anon: glibc: malloc arena]", "[anon:scudo:primary]", "[anon:libc_malloc]"}},
        {kMallocLarge, own, {"[anon: glibc: malloc]", "[anon:scudo:secondary]"}},
        {kStack, own, {"[stack]", "[anon:stack_and_tls:4711]"}},
        {kJitCode, "rwxp 0 00:00 0 ", {"[anon:v8]"}},
        {kNamedAnonymous, own, {"[anon:v8]", "[anon:my own name]"}},
        {kMemfd, unmounted, {"/memfd:big (deleted)"}},
        {kPosixShared, memory, {"/dev/shm/sem.x (deleted)"}},
        {kSysVShared, unmounted, {"/SYSV0000002a (deleted)"}},
        {kSharedAnonymous, unmounted, {"/dev/zero (deleted)", "[anon_shmem:mine]"}},
        {kSecretMemory, unmounted, {"/secretmem (deleted)"}},
        {kTmpfs, memory, {"/run/state"}},
        {kHugePages, unmounted, {"/memfd:big (deleted)", "/anon_hugepage (deleted)"}, "sh ms de ht "},
        {kGpuBuffer, memory, {"/dev/dri/renderD128", "/dev/nvidiactl"}},
        {kGpuBuffer, unmounted, {"/drm mm object (deleted)", "/i915 (deleted)"}},
        {kDmaBuffer, unmounted, {"/dmabuf:"}},
        {kIoUring, unmounted, {"anon_inode:[io_uring]"}},
        {kAioRing, unmounted, {"/[aio] (deleted)"}},
        {kPerfRing, unmounted, {"anon_inode:[perf_event]"}, "ms pf io dc de dd "},
        {kBpfMap, unmounted, {"anon_inode:bpf-map"}},
        {kPacketRing, unmounted, {"socket:[65759]"}},
        {kDeviceMemory, memory, {"/dev/hpet"}},
        {kDeviceMemory, unmounted, {"/sys/devices/pci0000:00/0000:00:02.0/resource0"}, "ms pf io "},
        {kVdso, "r-xp 0 00:00 0 ", {"[vdso]"}},
        {kVvar, "r--p 0 00:00 0 ", {"[vvar]", "[vvar_vclock]"}, "rd mr pf io de dd "},
        {kUprobes, "--xp 0 00:00 0 ", {"[uprobes]"}},
        {kVsyscall, "--xp 0 00:00 0 ", {"[vsyscall]"}},
        // Anyone may choose such names for files on a disk.
        {kNone, disk, {"/memfd:mine", "/SYSV00000000", "/secretmem", "/usr/bin/cat"}},
    };
    for (const auto& [tag, mapping, paths, flags] : rows) {
        for (const std::string& path : paths) {
            const SnapshotRegion region = regionsOf({mapping + path + "\nVmFlags: " + flags}).at(0);
            EXPECT_EQ(region.tag, tag) << path;
            EXPECT_EQ(region.hasStorage, mapping == disk) << path;
        }
    }
}

TEST_F(RegionKindsTest, NeighboursDecideKindOfAnonymousMemory) {
    const std::pair<std::string, std::vector<Tag>> rows[] = {
        {"400000 rwxp 402000", {kExecutableAnonymous}},
        {"400000 rw-p c000000000", {kNone}},
        // An arena, a full one, one with a rest as small as a guard, and two that are no arenas.
        {"7f0000000000 rw-p 7f0000021000 ---p 7f0004000000", {kMallocSmall, kReserved}},
        {"7f0008000000 rw-p 7f000c000000", {kMallocSmall}},
        {"7f0010000000 rw-p 7f0013fff000 ---p 7f0014000000", {kMallocSmall, kReserved}},
        {"7f0018000000 rw-p 7f0018021000 ---p 7f001b000000", {kNone, kReserved}},
        {"7f0020000000 r--p 7f0020021000 ---p 7f0024000000", {kNone, kReserved}},
        // A thread stack; too large for a guard.
        {"7f0030000000 ---p 7f0030001000 rw-p 7f0030801000 ---p 7f0030901000", {kGuard, kNone, kGuard}},
        {"7f0040000000 ---p 7f0040101000 rw-p 7f0040102000", {kReserved, kNone}},
        // With 32-bit addresses.
        {"f5a00000 rw-p f5a21000 ---p f5b00000 rw-p f5c00000", {kMallocSmall, kReserved, kMallocSmall}},
        {"f5c01000 rw-p f5c22000 ---p f5d01000", {kNone, kGuard}},
        {"f7000000 ---p f7001000 rw-p f7801000", {kGuard, kNone}},
    };
    for (const auto& [layout, expected] : rows) {
        std::istringstream words(layout);
        std::string start, permissions, end, smaps;
        for (words >> start; words >> permissions >> end; start = end)
            smaps += start + '-' + end + ' ' + permissions + " 0 00:00 0 \n";
        std::vector<Tag> tags;
        for (const SnapshotRegion& region : regionsOfText(smaps)) tags.push_back(region.tag);
        EXPECT_EQ(tags, expected) << layout;
    }
    // Zeroed data of an executable image is not generated code.
    const auto image = regionsOfText("1000-2000 rwxp 0 ffe:2 5 /usr/bin/old\n2000-3000 rwxp 0 00:00 0 \n");
    EXPECT_EQ(image.at(1).tag, kNone);
}

TEST_F(RegionKindsTest, EqualFilesAreEqualObjects) {
    struct stat inode {};
    ASSERT_EQ(fstat(FileDescriptor(eventfd(0, EFD_CLOEXEC)).get(), &inode), 0);
    std::ostringstream bpfMap;  // All BPF maps have one inode.
    bpfMap << std::hex << "rw-s 0 " << major(inode.st_dev) << ':' << minor(inode.st_dev) << ' ' << std::dec
           << inode.st_ino << " anon_inode:bpf-map";
    const std::string segment =
        "rw-s 0 ffe:3 32769 /SYSV00000000 (deleted)";      // Numbers of segments are separate from inodes.
    const std::string zeros = "rw-p 0 ffe:1 4 /dev/zero";  // A private mapping of it is anonymous memory.
    const auto& mine =
        regionsOf({"rw-s 0 ffe:3 32769 /memfd:a (deleted)", "r--p 0 ffe:2 32769 /lib/a",
                   "rw-p 0 ffe:2 32769 /lib/a", segment, bpfMap.str(), bpfMap.str(), zeros, zeros});
    const auto& theirs =
        regionsOf({"rw-s 0 ffe:3 32769 /memfd:b (deleted)", "r--p 0 ffe:2 32770 /lib/a", segment});
    settleAll();
    EXPECT_EQ(theirs.at(0).objectId, mine.at(0).objectId);
    EXPECT_EQ(mine.at(1).objectId, mine.at(2).objectId);
    std::set<std::uint32_t> different = {0};
    for (const auto* regions : {&mine, &theirs})
        for (const SnapshotRegion& region : *regions) different.insert(region.objectId);
    EXPECT_EQ(different.size(), 1 + mine.size() + theirs.size() - 2);
}

TEST_F(RegionKindsTest, FilesThatNothingIdentifiesAreNotUnited) {
    for (const std::string device : {"ffe:4", "ffe:5"}) {
        const auto file = [&](const std::string& path) { return "r--s 0 " + device + " 257 " + path; };
        const auto& mine = regionsOf({file("/one/a"), file("/one/b"), file("/one/a")});
        const auto& theirs = regionsOf({file("/one/b"), file("/one/c")});
        settleAll();
        EXPECT_EQ(mine.at(0).objectId, mine.at(2).objectId) << device;
        EXPECT_EQ(mine.at(1).objectId, theirs.at(0).objectId) << device;
        const std::set<std::uint32_t> different = {mine.at(0).objectId, mine.at(1).objectId,
                                                   theirs.at(1).objectId};
        EXPECT_EQ(different.size(), 3) << device;
    }
}

TEST_F(RegionKindsTest, ShareModeFollowsPages) {
    const std::string memory = "p 0 ffe:1 4 /run/x";
    const std::tuple<std::string, std::uint8_t, std::uint32_t> rows[] = {
        {"rw-p 0 00:00 0 \nRss: 0 kB", kShareModeEmpty, 0},
        {"rw-p 0 00:00 0 \nSwap: 4 kB", kShareModePrivate, 0},
        {"rw-s 0 ffe:3 3 /m\nShared_Hugetlb: 2048 kB\nPrivate_Hugetlb: 4096 kB", kShareModeShared, 6144},
        // A private mapping of a file in memory shares the file's pages until it may have been written to.
        {"rw-" + memory + "\nRss: 8 kB", kShareModeShared, 8},
        {"rw-" + memory + "\nAnonymous: 4 kB", kShareModeCopyOnWrite, 4},
        {"rw-" + memory + "\nSwap: 4 kB", kShareModeCopyOnWrite, 0},
        {"r--" + memory + "\nSwap: 4 kB", kShareModeShared, 0},
        {"r--p 0 ffe:2 4 /lib/x\nRss: 8 kB", kShareModeCopyOnWrite, 8},
        {"r-xp 0 00:00 0 [vdso]\nRss: 8 kB", kShareModePrivate, 0},  // The same pages in every process.
    };
    for (const auto& [entry, shareMode, resident] : rows) {
        const RegionInfoRecord record = regionsOf({entry}).at(0).record();
        EXPECT_EQ(record.share_mode, shareMode) << entry;
        EXPECT_EQ(record.pages_resident * sysconf(_SC_PAGESIZE), resident * 1024) << entry;
    }
}

TEST(FileSystemsTest, OverlayIsLocalIfAllLayersAre) {
    const auto kind = [](const std::string& options, bool areOurs = true) {
        FileSystems fileSystems;
        fileSystems.addMounts(
            "1 0 4094:2 / / rw - ext4 /dev/vda rw\n2 0 4094:5 / /srv/far rw - nfs4 x:/ rw\n"
            "3 0 4094:6 / /mnt rw shared:1 - overlay none rw," +
                options + "\n",
            areOurs);
        return fileSystems.kindOf(makedev(4094, 6));
    };
    EXPECT_EQ(kind("lowerdir=/a:/srv/farther,upperdir=/c"), FileSystems::Kind::kLocal);
    EXPECT_EQ(kind("lowerdir+=/a,lowerdir+=/b"), FileSystems::Kind::kLocal);
    EXPECT_EQ(kind("lowerdir=/a,upperdir=/c", false), FileSystems::Kind::kRemote);
    for (const char* options :
         {"lowerdir=/a:/srv/far/b", "lowerdir=/a::/srv/far", "lowerdir=/a,upperdir=/srv/far", "lowerdir=a",
          "lowerdir=/a\\:b", "lowerdir+=/srv/far/x", "index=off"})
        EXPECT_EQ(kind(options), FileSystems::Kind::kRemote) << options;
}

TEST(FileSystemsTest, LayersAreListedFromTheTop) {
    FileSystems fileSystems;
    const std::string mounts =
        "1 0 4094:2 / / rw - ext4 /dev/vda rw\n"
        "3 0 4094:6 /sub\\040tree /mnt rw - overlay none "
        "rw,lowerdir+=/a,lowerdir+=/b/c,upperdir=/u,workdir=/w\n"
        "4 0 4094:7 / /ro rw - overlay none ro,lowerdir=/a:/b\n";
    fileSystems.addMounts(mounts, true);
    EXPECT_EQ(fileSystems.layersOf(makedev(4094, 6)), (std::vector<std::string>{"/u", "/a", "/b/c"}));
    EXPECT_EQ(fileSystems.layersOf(makedev(4094, 7)), (std::vector<std::string>{"", "/a", "/b"}));
    const auto mount = fileSystems.mountWithId(3);
    ASSERT_TRUE(mount);
    EXPECT_EQ(std::tie(mount->device, mount->root, mount->path),
              std::tuple(makedev(4094, 6), "/sub tree", "/mnt"));
    // Names of layers that others have chosen.
    FileSystems ofOthers;
    ofOthers.addMounts(mounts, false);
    EXPECT_TRUE(ofOthers.layersOf(makedev(4094, 6)).empty());
}

}  // namespace
}  // namespace zorbel::test
