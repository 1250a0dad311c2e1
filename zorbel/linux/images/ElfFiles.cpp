#include "linux/images/ElfFiles.h"

#include "linux/process/FileReferences.h"

namespace zorbel {

namespace {

/// Opens the region's file for reading, given a descriptor that only refers to it. First checks that it is a
/// regular file, since opening others may have side effects, and that it is the mapped file: the name may now
/// belong to another file, even on a file system that hangs, and the process may have called exec.
FileDescriptor openFileOf(const SnapshotRegion& region, const FileDescriptor& reference, bool isNamed) {
    const auto status = statusOf(reference);
    if (!status || !status->isRegular || status->inode != region.file->inode ||
        (isNamed && status->device != region.file->device))
        return FileDescriptor();
    return openReferred(reference);
}

}  // namespace

ElfFiles::Answer ElfFiles::answerFor(const SnapshotRegion& region, int processDirectory) {
    File* file = nullptr;
    {
        const std::lock_guard lock(_mutex);
        File*& known = _fileOfId[region.fileId()];
        if (known == nullptr) known = &_files.emplace_back();
        file = known;
    }
    const std::lock_guard lock(file->mutex);
    if (file->kind == Kind::kUnreadable && region.fileUse == FileUse::kMayBeRead) {
        FileDescriptor descriptor =
            openFileOf(region, referToMappedFile(region.start, region.end, processDirectory), false);
        if (!descriptor.isOpen())
            descriptor =
                openFileOf(region, referToNamedFile(region.file->path.c_str(), processDirectory), true);
        if (descriptor.isOpen()) {
            auto layout = readElfLayout(descriptor.get());
            file->kind = layout ? Kind::kElf : Kind::kOther;
            if (layout) file->layout = *std::move(layout);
        }
    }
    return {file->kind, &file->layout};
}

}  // namespace zorbel
