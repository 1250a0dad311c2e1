#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Files.h"
#include "linux/images/ElfFiles.h"
#include "linux/images/LoadedImages.h"
#include "linux/kinds/FileSystems.h"
#include "linux/kinds/ObjectIds.h"
#include "linux/process/Smaps.h"
#include "linux/process/SnapshotRegion.h"
#include "platform/Platform.h"

namespace zorbel {

/// The regions and images of a process as one reading of its smaps shows them. The regions are in ascending
/// order and disjoint.
///
/// The kernel merges neighbours, such as a library's zeroed data and a heap above it: regions are split where
/// the segment of an image begins or ends.
class TaskSnapshot {
  public:
    /// Reads the process whose /proc directory is given. An address space that goes away meanwhile is read
    /// again, since the process may have replaced it by exec.
    TaskSnapshot(int processDirectory, FileSystems& fileSystems, ElfFiles& elfFiles, ObjectIds& objectIds);

    /// The first region that ends above the address, or null.
    [[nodiscard]] const SnapshotRegion* regionAtOrAfter(std::uint64_t address) const;

    /// What a look-up behind the last region answers: kKernInvalidAddress when all regions were read,
    /// kMachSendInvalidDest when the process exited before, an errno's code when it could not be read.
    [[nodiscard]] KernReturn codeAtEnd() const { return _codeAtEnd; }

    /// The programs and libraries that the process has loaded.
    [[nodiscard]] const LoadedImages& images() const { return _images; }

    /// The dispositions of count pages from a page's start on, as Platform::mach_vm_page_range_query wants
    /// them.
    KernReturn queryPages(int processDirectory, std::uint64_t address, std::uint64_t count,
                          std::int32_t* dispositions) const;

  private:
    void _readRegions(int processDirectory);
    void _findImages(ElfFiles& files, int processDirectory);
    void _split(std::vector<std::uint64_t> cuts, int processDirectory);
    KernReturn _read(int processDirectory, const char* path);
    void _addEntry(const SmapsEntry& entry, int processDirectory);
    void _lookAtFile(const SmapsEntry& entry, int processDirectory);
    [[nodiscard]] FileSystems::Kind _kindOfFileSystem(const SmapsEntry& entry, int processDirectory);

    /// The directory with the files about the address space.
    [[nodiscard]] int _directoryOfMemory(int processDirectory) const {
        return _thread.isOpen() ? _thread.get() : processDirectory;
    }

    FileSystems& _fileSystems;
    ObjectIds& _objectIds;
    FileDescriptor _thread;  ///< The /proc directory of a thread, where only threads show the memory.
    std::vector<SnapshotRegion> _regions;
    LoadedImages _images;
    KernReturn _codeAtEnd = kKernInvalidAddress;
    mutable std::size_t _lastFound = 0;
    bool _knowsMounts = false;

    /// What was found out about the file of the last entry that has one. A file's regions follow each other,
    /// so mostly it is the file of the next one too.
    struct {
        FileIdentity identity;
        FileSystems::Kind fileSystem = FileSystems::Kind::kUnknown;
        std::uint32_t objectId = 0;
        std::string rawPath;
        Name path;
    } _file;
};

}  // namespace zorbel
