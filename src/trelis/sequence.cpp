#include "trelis/sequence.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "platform/file.h"
#include "platform/home.h"

namespace trelis {
namespace {

constexpr off_t kFileSize = 4096;

static_assert(std::atomic<std::uint32_t>::is_always_lock_free &&
              sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

long Futex(std::atomic<std::uint32_t>* word, int operation, std::uint32_t value,
           const timespec* limit) {
    return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), operation, value, limit,
                   nullptr, 0);
}

void* MapCounter() {
    const platform::File file(open(platform::HomePath("store.seq").c_str(),
                                   O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    // Only ever made longer: a page that another process uses must not go away under it. And with
    // its place on the disk: a full one would end the process at its first look.
    if (!file || posix_fallocate(file.Descriptor(), 0, kFileSize) != 0) return MAP_FAILED;
    return mmap(nullptr, kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.Descriptor(), 0);
}

}  // namespace

Sequence::Sequence() {
    void* page = MapCounter();
    if (page != MAP_FAILED) counter_ = static_cast<std::atomic<std::uint32_t>*>(page);
}

Sequence& Sequence::Instance() {
    static Sequence& sequence = *new Sequence;
    return sequence;
}

void Sequence::Raise() {
    counter_->fetch_add(1, std::memory_order_acq_rel);
    Futex(counter_, FUTEX_WAKE, INT_MAX, nullptr);
}

void Sequence::WaitForChange(std::uint32_t seen) const {
    const timespec limit{1, 0};
    Futex(counter_, FUTEX_WAIT, seen, &limit);
}

}  // namespace trelis
