#include "platform/shared_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace platform {
namespace {

constexpr long long kMostViewed = 1 << 20;

// A lock of the open file's, which goes when the last of its descriptors does: with the process,
// since none is handed on.
struct flock WholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

SharedFile SharedFile::Make(const std::string& name, std::size_t size) {
    SharedFile made;
    unlink(name.c_str());  // of a process that died here
    File file(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct flock lock = WholeFile();
    if (!file) return {};
    if (posix_fallocate(file.Descriptor(), 0, static_cast<off_t>(size)) != 0 ||
        fcntl(file.Descriptor(), F_OFD_SETLK, &lock) != 0 ||
        !(made.mapping_ = Mapping::Map(std::move(file), size, true))) {
        unlink(name.c_str());
        return {};
    }
    return made;
}

bool SharedFile::Publish(const std::string& name, const std::string& path) {
    return std::rename(name.c_str(), path.c_str()) == 0;
}

SharedFile SharedFile::View(const std::string& path) {
    SharedFile view;
    File file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    const long long size = file ? file.Size() : -1;
    if (size <= 0 || size > kMostViewed) return {};
    view.mapping_ = Mapping::Map(std::move(file), static_cast<std::size_t>(size), false);
    return view;
}

bool SharedFile::WriterLives() const {
    // The lock is only asked for: taken, it would keep a writer from its own.
    struct flock lock = WholeFile();
    return mapping_ && fcntl(mapping_.File().Descriptor(), F_OFD_GETLK, &lock) == 0 &&
           lock.l_type != F_UNLCK;
}

bool SharedFile::IsWhole() const {
    return mapping_ && mapping_.File().Size() >= static_cast<long long>(Size());
}

}  // namespace platform
