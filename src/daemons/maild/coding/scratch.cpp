#include "daemons/maild/coding/scratch.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "platform/home.h"

namespace maild {

namespace {

constexpr long long kMostInMemory = 256 << 10;
constexpr std::size_t kFlushAt = 16384;

}  // namespace

bool Scratch::MoveToDisk(long long size) {
    onDisk_ = true;
    platform::File disk(
        open(platform::HomePath("tmp").c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_EXCL, 0600));
    if (!disk) return true;  // a file system that can't: it stays in memory
    off_t at = 0;
    while (at < size) {
        const ssize_t count = sendfile(disk.Descriptor(), file_.Descriptor(), &at,
                                       static_cast<std::size_t>(size - at));
        if (count <= 0) return false;
    }
    file_ = std::move(disk);
    return true;
}

bool Scratch::Write(std::string_view bytes) {
    if (failed_) return false;
    buffer_ += bytes;
    size_ += static_cast<long long>(bytes.size());
    return buffer_.size() < kFlushAt || Flush();
}

bool Scratch::Flush() {
    if (!file_) file_ = platform::File(memfd_create("part", MFD_CLOEXEC));
    const long long before = size_ - static_cast<long long>(buffer_.size());
    failed_ = failed_ || !file_ || (!onDisk_ && size_ > kMostInMemory && !MoveToDisk(before)) ||
              !file_.Write(buffer_.data(), buffer_.size());
    buffer_.clear();
    return !failed_;
}

int Scratch::Rewind() {
    // Behind what was written before it was read.
    if (file_ && !failed_) failed_ = lseek(file_.Descriptor(), 0, SEEK_END) < 0;
    failed_ = !Flush() || lseek(file_.Descriptor(), 0, SEEK_SET) != 0;
    return failed_ ? -1 : file_.Descriptor();
}

}  // namespace maild
