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

/// The regions and images of a process, from one reading of its smaps. Regions are disjoint and in ascending
/// order.
///
/// The kernel merges neighbours, such as a library's zeroed data and a heap above it. So regions are split
/// where a segment of an image begins or ends.
class TaskSnapshot {
  public:
    /// Reads a process, given its /proc directory. If the address space disappears meanwhile, reads again:
    /// the process may have called exec.
    TaskSnapshot(int processDirectory, FileSystems& fileSystems, ElfFiles& elfFiles, ObjectIds& objectIds);

    /// The first region that ends above the address, or null.
    [[nodiscard]] const SnapshotRegion* regionAtOrAfter(std::uint64_t address) const;

    /// What a look-up after the last region returns: kKernInvalidAddress if all regions were read,
    /// kMachSendInvalidDest if the process exited before that, an errno's code if reading failed.
    [[nodiscard]] KernReturn codeAtEnd() const { return _codeAtEnd; }

    /// The programs and libraries that the process has loaded.
    [[nodiscard]] const LoadedImages& images() const { return _images; }

    /// Writes the dispositions of count pages, as Platform::mach_vm_page_range_query describes. The address
    /// must be the start of a page.
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

    /// The directory whose files show the address space.
    [[nodiscard]] int _directoryOfMemory(int processDirectory) const {
        return _thread.isOpen() ? _thread.get() : processDirectory;
    }

    FileSystems& _fileSystems;
    ObjectIds& _objectIds;
    FileDescriptor _thread;  ///< The /proc directory of a thread; open if the process's own files do not show
                             ///< its memory.
    std::vector<SnapshotRegion> _regions;
    LoadedImages _images;
    KernReturn _codeAtEnd = kKernInvalidAddress;
    mutable std::size_t _lastFound = 0;
    bool _knowsMounts = false;

    /// The file of the last entry that maps one. Regions of one file follow each other, so the next entry
    /// usually maps the same file.
    struct {
        FileIdentity identity;
        FileSystems::Kind fileSystem = FileSystems::Kind::kUnknown;
        std::uint32_t objectId = 0;
        std::string rawPath;
        Name path;
    } _file;
};

}  // namespace zorbel
