#include "daemons/maild/coding/scratch.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "platform/home.h"

namespace maild {

namespace {

constexpr long long kMostInMemory = 256 << 10;

}  // namespace

bool Scratch::MoveToDisk() {
    onDisk_ = true;
    platform::File disk(
        open(platform::HomePath("tmp").c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_EXCL, 0600));
    if (!disk) return true;  // a file system that can't: it stays in memory
    off_t at = 0;
    while (at < size_) {
        const ssize_t count = sendfile(disk.Descriptor(), file_.Descriptor(), &at,
                                       static_cast<std::size_t>(size_ - at));
        if (count <= 0) return false;
    }
    file_ = std::move(disk);
    return true;
}

bool Scratch::Write(std::string_view bytes) {
    if (failed_) return false;
    if (!file_) file_ = platform::File(memfd_create("part", MFD_CLOEXEC));
    const auto size = static_cast<long long>(bytes.size());
    failed_ = !file_ || (!onDisk_ && size_ + size > kMostInMemory && !MoveToDisk()) ||
              !file_.Write(bytes.data(), bytes.size());
    size_ += size;
    return !failed_;
}

int Scratch::Rewind() {
    if (!failed_ && !file_) Write({});
    failed_ = failed_ || lseek(file_.Descriptor(), 0, SEEK_SET) != 0;
    return failed_ ? -1 : file_.Descriptor();
}

}  // namespace maild
