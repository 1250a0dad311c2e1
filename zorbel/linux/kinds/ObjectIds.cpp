#include "linux/kinds/ObjectIds.h"

#include <sys/eventfd.h>
#include <sys/stat.h>

#include <boost/container_hash/hash.hpp>

#include "base/Files.h"

namespace zorbel {

std::size_t hash_value(const FileIdentity& file) {
    std::size_t seed = 0;
    boost::hash_combine(seed, file.device);
    boost::hash_combine(seed, file.inode);
    boost::hash_combine(seed, file.ipcNamespace);
    boost::hash_combine(seed, file.firstFrame);
    boost::hash_combine(seed, file.subvolume);
    boost::hash_combine(seed, file.path.hash());
    return seed;
}

ObjectIds::ObjectIds() {
    const FileDescriptor probe(eventfd(0, EFD_CLOEXEC));  // Uses that inode too.
    struct stat status {};
    if (probe.isOpen() && fstat(probe.get(), &status) == 0) _anonymousInode = {status.st_dev, status.st_ino};
}

std::uint32_t ObjectIds::numberOfFile(const FileIdentity& file) {
    const std::lock_guard lock(_mutex);
    std::uint32_t& number = _files[file];
    if (number == 0) number = static_cast<std::uint32_t>(_files.size());
    return number;
}

std::uint32_t ObjectIds::idOfSaved(Name capture, std::uint32_t number) {
    const std::lock_guard lock(_mutex);
    std::uint32_t& id = _captures[capture][number];
    if (id == 0) id = newId();
    return id;
}

}  // namespace zorbel
