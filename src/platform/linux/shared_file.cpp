#include "platform/shared_file.h"

#include <fcntl.h>
#include <sys/mman.h>
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

SharedFile& SharedFile::operator=(SharedFile&& other) noexcept {
    if (this == &other) return *this;
    Unmap();
    file_ = std::move(other.file_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    return *this;
}

bool SharedFile::Map(bool writing) {
    void* const at = mmap(nullptr, size_, writing ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED,
                          file_.Descriptor(), 0);
    data_ = at == MAP_FAILED ? nullptr : at;
    return data_ != nullptr;
}

void SharedFile::Unmap() {
    if (data_ != nullptr) munmap(std::exchange(data_, nullptr), size_);
}

SharedFile SharedFile::Make(const std::string& name, std::size_t size) {
    SharedFile made;
    unlink(name.c_str());  // of a process that died here
    made.file_ = File(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    made.size_ = size;
    struct flock lock = WholeFile();
    if (!made.file_) return {};
    if (posix_fallocate(made.file_.Descriptor(), 0, static_cast<off_t>(size)) != 0 ||
        fcntl(made.file_.Descriptor(), F_OFD_SETLK, &lock) != 0 || !made.Map(true)) {
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
    view.file_ = File(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    const long long size = view.file_ ? view.file_.Size() : -1;
    if (size <= 0 || size > kMostViewed) return {};
    view.size_ = static_cast<std::size_t>(size);
    if (!view.Map(false)) return {};
    return view;
}

bool SharedFile::WriterLives() const {
    // The lock is only asked for: taken, it would keep a writer from its own.
    struct flock lock = WholeFile();
    return file_ && fcntl(file_.Descriptor(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace platform
