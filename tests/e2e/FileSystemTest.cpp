// Files on file systems where the numbers in maps do not show which file is mapped, and what else is mapped
// by a name.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "e2e/Program.h"
#include "fixtures/Fixture.h"
#include "fixtures/Mounts.h"

namespace zorbel::e2e {
namespace {

using testing::Contains;
using testing::Key;

const std::string kFile = "mapped file";
constexpr std::size_t kPages = 2048;
constexpr const char* kNoBtrfs = "takes root, loop devices, btrfs and btrfs-progs";

/// Opens a file, which gets this size if it is new.
int openFile(const std::string& path, std::size_t pages = 0) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    check(fd >= 0, path);
    if (pages != 0) check(ftruncate(fd, static_cast<off_t>(pages * kPageSize)) == 0, path);
    return fd;
}

/// A file that has contents, so that each of its pages can be in memory.
void fillFile(const std::string& path, std::size_t pages) {
    const std::string page(kPageSize, 'x');
    const int fd = openFile(path);
    for (std::size_t i = 0; i < pages; ++i)
        check(write(fd, page.data(), page.size()) == static_cast<ssize_t>(page.size()), path);
    check(fsync(fd) == 0 && close(fd) == 0, path);
}

/// A process that maps a file and writes some of its pages.
Fixture::Step write(const std::string& path, std::size_t first, std::size_t count,
                    std::size_t pages = kPages) {
    return [=] {
        static const Region region(pages, MAP_SHARED, openFile(path));
        region.touch(first, count);
    };
}

/// A process that maps a file privately and reads some of its pages.
Fixture::Step read(const std::string& path, std::size_t first, std::size_t count) {
    return [=] {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        check(fd >= 0, path);
        const void* start = mmap(nullptr, kPages * kPageSize, PROT_READ, MAP_PRIVATE, fd, 0);
        check(start != MAP_FAILED, path);
        for (std::size_t i = first; i < first + count; ++i)
            static_cast<void>(+static_cast<const volatile char*>(start)[i * kPageSize]);
    };
}

/// Becomes a user without rights, whose memory others of that user may look at.
void becomeNobody() {
    constexpr unsigned kNobody = 65534;
    check(setgroups(0, nullptr) == 0 && setresgid(kNobody, kNobody, kNobody) == 0 &&
              setresuid(kNobody, kNobody, kNobody) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0,
          "setresuid");
}

std::int64_t sumOf(const Table& table, const std::string& category, std::int64_t Row::*column) {
    const auto row = table.find(category);
    return row == table.end() ? 0 : row->second.*column;
}

TEST(FileSystemTest, EqualInodeNumbersInSubvolumesAreTwoFiles) {
    const Btrfs disk;
    if (!disk.isMounted()) GTEST_SKIP() << kNoBtrfs;
    disk.subvolume("create first");
    fillFile(disk.path("/first/file"), kPages);
    disk.subvolume("snapshot first second");
    struct stat inFirst {
    }, inSecond{};
    ASSERT_EQ(stat(disk.path("/first/file").c_str(), &inFirst), 0);
    ASSERT_EQ(stat(disk.path("/second/file").c_str(), &inSecond), 0);
    ASSERT_EQ(inFirst.st_ino, inSecond.st_ino);

    const Fixture one({write(disk.path("/first/file"), 0, kPages)});
    const Fixture other({write(disk.path("/second/file"), 0, kPages)});
    const Outcome apart = measure({one.pid(), other.pid()});
    EXPECT_EQ(sumOf(apart.summary(), kFile, &Row::dirty), 2 * kPages);
    for (const Fixture* fixture : {&one, &other})
        EXPECT_EQ(sumOf(apart.tableOf(fixture->pid()), kFile, &Row::dirty), kPages);

    // One that maps the same file as another.
    const Fixture same({write(disk.path("/first/file"), 10, 1)});
    const Outcome together = measure({one.pid(), same.pid()});
    EXPECT_EQ(sumOf(together.summary(), kFile, &Row::dirty), kPages);
    EXPECT_EQ(sumOf(together.tableOf(one.pid()), kFile, &Row::dirty), 0);
    const std::string title = "Shared with e2e-tests" + numberOf(same.pid()) + ":\n";
    EXPECT_EQ(sumOf(together.tableAfter({headerOf(one.pid()), title}), kFile, &Row::dirty), kPages);
}

TEST(FileSystemTest, NamesProgramsInSubvolumes) {
    const Btrfs disk;
    if (!disk.isMounted()) GTEST_SKIP() << kNoBtrfs;
    // Two programs with one inode number, whose segments differ.
    disk.subvolume("create first");
    disk.subvolume("create second");
    const std::pair<std::string, std::string> programs[] = {
        {disk.path("/first/program"), "pie"}, {disk.path("/second/program"), "one-file-segment"}};
    const std::string zorbel = disk.path("/first/zorbel");
    for (const auto& [copy, kind] : programs)
        std::filesystem::copy(PROGRAM_DIR "/image-program-" + kind, copy);
    std::filesystem::copy(kZorbel, zorbel);
    struct stat inFirst {
    }, inSecond{};
    ASSERT_EQ(stat(programs[0].first.c_str(), &inFirst), 0);
    ASSERT_EQ(stat(programs[1].first.c_str(), &inSecond), 0);
    ASSERT_EQ(inFirst.st_ino, inSecond.st_ino);
    for (const bool isRoot : {true, false}) {
        std::vector<pid_t> pids;
        std::vector<std::unique_ptr<Fixture>> fixtures;
        for (const auto& [copy, kind] : programs) {
            fixtures.push_back(std::make_unique<Fixture>(std::vector<Fixture::Step>{[&] {
                if (!isRoot) becomeNobody();
                execl(copy.c_str(), copy.c_str(), "40", "0", nullptr);
            }}));
            pids.push_back(fixtures.back()->pid());
        }
        const Words user =
            isRoot ? Words() : Words{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        Words command = user;
        command.push_back(zorbel);
        const auto dirtyData = [&] {
            const Outcome outcome = runZorbel(wide(pids), command);
            std::vector<std::int64_t> dirty;
            for (std::size_t i = 0; i < pids.size(); ++i)
                dirty.push_back(sumOf(outcome.tableOf(pids[i]), "__DATA " + programs[i].first, &Row::dirty));
            return dirty;
        };
        const auto before = dirtyData();
        for (const auto& fixture : fixtures) fixture->next();
        const auto after = dirtyData();
        for (std::size_t i = 0; i < pids.size(); ++i)
            EXPECT_EQ(after[i] - before[i], 40) << programs[i].second << (isRoot ? "" : " without root");
    }
}

/// A lower directory on a disk with a file, and two overlays over it: the upper directory of the first one is
/// on the disk, too, and that of the second one in memory.
class OverlayTest : public testing::Test {
  protected:
    OverlayTest() {
        check(mkdtemp(_disk) != nullptr, _disk);
        if (!_memory.isMounted()) return;
        const auto overlayIn = [&](const std::string& directory, const std::string& more) {
            for (const char* name : {"/upper", "/work"}) std::filesystem::create_directory(directory + name);
            return std::make_unique<Mount>("none", "overlay",
                                           "lowerdir=" + lower() + ",upperdir=" + directory +
                                               "/upper,workdir=" + directory + "/work" + more);
        };
        std::filesystem::create_directories(lower("/lib"));
        fillFile(lower("/lib/file"), kPages);
        _first = overlayIn(_disk, "");
        _second = overlayIn(_memory.path(), ",metacopy=on");
    }
    ~OverlayTest() override {
        _first.reset();
        std::filesystem::remove_all(_disk);
    }

    void SetUp() override {
        if (!_second || !_first->isMounted() || !_second->isMounted())
            GTEST_SKIP() << "takes root and overlays";
    }

    [[nodiscard]] std::string lower(const std::string& rest = "") const { return _disk + ("/lower" + rest); }
    [[nodiscard]] std::string first(const std::string& rest = "") const { return _first->path(rest); }
    [[nodiscard]] std::string second(const std::string& rest = "") const { return _second->path(rest); }

  private:
    char _disk[24] = "/var/tmp/layers-XXXXXX";
    Mount _memory{"none", "tmpfs"};
    std::unique_ptr<Mount> _first, _second;
};

TEST_F(OverlayTest, FileOfALowerLayerCountsOnce) {
    // A container, whose root the overlay is.
    std::filesystem::create_directory(first("/old"));
    const Fixture container({[&] {
        check(unshare(CLONE_NEWNS) == 0 && chdir(first().c_str()) == 0, "unshare");
        check(syscall(SYS_pivot_root, ".", "old") == 0 && umount2("/old", MNT_DETACH) == 0, "pivot_root");
        read("/lib/file", 0, kPages)();
    }});
    const Fixture one({read(first("/lib/file"), 0, kPages)}), two({read(second("/lib/file"), 0, kPages)});
    const Fixture itself({read(lower("/lib/file"), 0, kPages)});
    const auto cleanPages = [&] {
        return sumOf(measure({one.pid(), two.pid(), itself.pid(), container.pid()}).summary(), kFile,
                     &Row::clean);
    };
    EXPECT_LT(cleanPages(), 2 * kPages);
    // Only its attributes are copied up.
    ASSERT_EQ(chmod(second("/lib/file").c_str(), 0600), 0);
    EXPECT_LT(cleanPages(), 2 * kPages);
}

TEST_F(OverlayTest, FileOfAnUpperLayerIsOnItsDiskOrInMemory) {
    close(openFile(first("/new"), 70)), close(openFile(second("/new"), 70));
    const Fixture onDisk({write(first("/new"), 5, 50, 70)}), inMemory({write(second("/new"), 5, 60, 70)});
    const Outcome outcome = measure({onDisk.pid(), inMemory.pid()});
    EXPECT_EQ(sumOf(outcome.tableOf(onDisk.pid()), kFile, &Row::dirty), 50);
    EXPECT_EQ(sumOf(outcome.tableOf(inMemory.pid()), kFile, &Row::dirty), 0);
    EXPECT_EQ(sumOf(outcome.summary(), "tmpfs file", &Row::dirty), 60);
    // A lower file that is written is copied up: each overlay then has its own.
    const Fixture copied({write(second("/lib/file"), 0, 30)}), still({read(first("/lib/file"), 0, 1)});
    EXPECT_EQ(sumOf(measure({copied.pid(), still.pid()}).summary(), "tmpfs file", &Row::dirty), kPages);
}

TEST_F(OverlayTest, EqualInodeNumbersInLayersAreTwoFiles) {
    const Mount upper("none", "tmpfs"), lower("none", "tmpfs");
    fillFile(upper.path("/a"), 20), fillFile(lower.path("/b"), 20);
    const Mount overlay("none", "overlay", "lowerdir=" + upper.path() + ":" + lower.path());
    ASSERT_TRUE(overlay.isMounted());
    const Fixture fixture({[&] {
        static const Region a(20, MAP_PRIVATE, open(overlay.path("/a").c_str(), O_RDONLY | O_CLOEXEC));
        static const Region b(20, MAP_PRIVATE, open(overlay.path("/b").c_str(), O_RDONLY | O_CLOEXEC));
        a.read(0, 20), b.read(0, 20);
    }});
    EXPECT_EQ(sumOf(measure({fixture.pid()}).tableOf(fixture.pid()), "tmpfs file", &Row::dirty), 40);
}

TEST(FileSystemTest, SecretMemory) {
    constexpr long kMemfdSecretCall = 447;
    const auto create = [] { return static_cast<int>(syscall(kMemfdSecretCall, O_CLOEXEC)); };
    const int fd = create();
    if (fd < 0) GTEST_SKIP() << "the kernel has no secret memory";
    check(ftruncate(fd, static_cast<off_t>(30 * kPageSize)) == 0, "memfd_secret");
    const auto use = [fd](std::size_t first, std::size_t count) {
        return Fixture::Step([=] {
            static const Region region(30, MAP_SHARED, fd);
            region.touch(first, count);
        });
    };
    const Fixture one({use(0, 20)}), other({use(15, 12)});
    close(fd);
    Table table = measure({one.pid()}).tableOf(one.pid());
    EXPECT_EQ(table["secret memory"], (Row{.dirty = 20, .wired = 20, .regions = 1}));
    EXPECT_EQ(sumOf(table, kFile, &Row::regions), 0);
    // Only page tables show which pages there are.
    EXPECT_EQ(measure({one.pid(), other.pid()}).summary()["secret memory"].dirty, 27);
}

TEST(FileSystemTest, PagesOfABlockDeviceAreThoseOfAFile) {
    const LoopDevice device(1 << 20);
    if (device.path().empty()) GTEST_SKIP() << "takes root and loop devices";
    const Fixture fixture({[&] {
                               static const Region region(40, MAP_SHARED, openFile(device.path()));
                               region.read(0, 40);
                           },
                           write(device.path(), 30, 7, 40)});
    const Row before = measure({fixture.pid()}).tableOf(fixture.pid())[kFile];
    fixture.next();
    const Outcome outcome = measure({fixture.pid()});
    EXPECT_EQ(before.dirty, 0);
    EXPECT_GE(before.clean, 40);
    EXPECT_EQ(sumOf(outcome.tableOf(fixture.pid()), kFile, &Row::dirty), 7);
    EXPECT_EQ(sumOf(outcome.tableOf(fixture.pid()), "device memory", &Row::regions), 0);
    // The device itself, whatever its node is called.
    struct stat node {};
    ASSERT_EQ(stat(device.path().c_str(), &node), 0);
    const std::string other = device.path() + "-again";
    ASSERT_EQ(mknod(other.c_str(), S_IFBLK | 0600, node.st_rdev), 0);
    const std::shared_ptr<void> putBack(nullptr, [&](void*) { unlink(other.c_str()); });
    const Fixture same({write(other, 30, 8, 40)});
    EXPECT_EQ(sumOf(measure({fixture.pid(), same.pid()}).summary(), kFile, &Row::dirty), 8);
}

}  // namespace
}  // namespace zorbel::e2e
