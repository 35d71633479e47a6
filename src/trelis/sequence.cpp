#include "trelis/sequence.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "platform/file.h"
#include "platform/home.h"
#include "platform/mapping.h"

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

platform::Mapping MapCounter() {
    platform::File file(open(platform::HomePath("store.seq").c_str(),
                             O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    // Only ever made longer: a page that another process uses must not go away under it. And with
    // its place on the disk: a full one would end the process at its first look.
    if (!file || posix_fallocate(file.Descriptor(), 0, kFileSize) != 0) return {};
    return platform::Mapping::Map(std::move(file), kFileSize, true);
}

}  // namespace

Sequence::Sequence() {
    static platform::Mapping& mapping = *new platform::Mapping(MapCounter());
    if (mapping) counter_ = static_cast<std::atomic<std::uint32_t>*>(mapping.Data());
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
