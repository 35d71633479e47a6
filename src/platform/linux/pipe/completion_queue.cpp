#include "platform/linux/pipe/completion_queue.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

// The number of no watch: the bell.
constexpr std::uint64_t kBell = 0;
constexpr std::uint32_t kToRead = EPOLLIN | EPOLLRDHUP;

// The bell of all queues: a descriptor that is always ready. A queue rings by asking for it anew,
// once, so that it costs a queue no descriptor. -1 if there is none to be had.
int Bell() {
    static std::mutex& mutex = *new std::mutex;
    static int bell = -1;
    const std::lock_guard lock(mutex);
    if (bell < 0) bell = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
    return bell;
}

bool Control(int epoll, int operation, int descriptor, std::uint64_t watch, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = watch;
    return epoll_ctl(epoll, operation, descriptor, &event) == 0;
}

// Milliseconds for epoll_wait.
int WaitUntil(std::optional<Clock::time_point> end) {
    if (!end) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
}

}  // namespace

CompletionQueue::CompletionQueue(bool shared)
    : shared_(shared),
      epoll_(shared ? epoll_create1(EPOLL_CLOEXEC) : -1),
      bell_(shared ? Bell() : -1),
      ready_(!shared ||
             (epoll_ && Control(epoll_.Get(), EPOLL_CTL_ADD, bell_, kBell, EPOLLONESHOT))) {}

std::uint64_t CompletionQueue::Watch(int descriptor, PollTarget* target) {
    std::uint64_t watch = 0;
    try {
        const std::lock_guard lock(mutex_);
        watch = ++lastWatch_;
        targets_.emplace(watch, Share(target));
    } catch (const std::bad_alloc&) {
        return 0;
    }
    if (!shared_) {
        descriptor_ = descriptor;
        wanted_ = kToRead;
        return watch;
    }
    if (Control(epoll_.Get(), EPOLL_CTL_ADD, descriptor, watch, kToRead | EPOLLET)) return watch;
    const std::lock_guard lock(mutex_);
    targets_.erase(watch);
    return 0;
}

void CompletionQueue::WatchRoom(int descriptor, std::uint64_t watch, bool room) {
    const std::uint32_t wanted = room ? kToRead | EPOLLOUT : kToRead;
    if (shared_)
        Control(epoll_.Get(), EPOLL_CTL_MOD, descriptor, watch, wanted | EPOLLET);
    else
        wanted_ = wanted;
}

void CompletionQueue::Unwatch(int descriptor, std::uint64_t watch) {
    if (shared_)
        epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
    else
        descriptor_ = -1;
    const std::lock_guard lock(mutex_);
    targets_.erase(watch);  // never the last reference: the caller has one
}

void CompletionQueue::Ring() {
    if (shared_ && sleeping_ > 0 && coming_ == 0)
        Control(epoll_.Get(), EPOLL_CTL_MOD, bell_, kBell, EPOLLIN | EPOLLONESHOT);
}

void CompletionQueue::Post(DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped, DWORD error) {
    const std::lock_guard lock(mutex_);
    posted_.push_back({bytes, key, overlapped, error});
    Ring();
}

int CompletionQueue::WaitForEvent(End end, bool look, std::uint64_t& watch,
                                  std::uint32_t& events) const {
    if (shared_) {
        epoll_event event{};
        const int count = epoll_wait(epoll_.Get(), &event, 1, WaitUntil(end));
        watch = event.data.u64;
        events = event.events;
        return count;
    }
    // The events of poll have the numbers of epoll's.
    pollfd entry{descriptor_, static_cast<short>(wanted_), 0};
    const int count = PollUntil({&entry, 1}, end, !look);
    watch = lastWatch_;
    events = static_cast<std::uint32_t>(entry.revents);
    return count;
}

bool CompletionQueue::Sleep(std::unique_lock<std::mutex>& lock, End end, bool look) {
    std::uint64_t watch = 0;
    std::uint32_t events = 0;
    ++sleeping_;
    lock.unlock();
    const int count = WaitForEvent(end, look, watch, events);
    const int error = errno;
    lock.lock();
    --sleeping_;
    if (count == 0 && posted_.empty()) return platform::Fail(WAIT_TIMEOUT);
    if (count < 0 && error != EINTR) return platform::Fail(ERROR_INVALID_HANDLE);
    const auto found = count > 0 ? targets_.find(watch) : targets_.end();
    if (found == targets_.end()) return true;
    Reference<PollTarget> target = Share(found->second.get());
    ++coming_;
    lock.unlock();
    target->OnReady(events);
    target.reset();  // with no lock held: the end of a pipe may end its server
    lock.lock();
    --coming_;
    return true;
}

BOOL CompletionQueue::Take(DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                           DWORD milliseconds) {
    *overlapped = nullptr;
    std::optional<Clock::time_point> end;
    if (milliseconds != INFINITE) end = Clock::now() + std::chrono::milliseconds(milliseconds);
    std::unique_lock lock(mutex_);
    while (posted_.empty()) {
        if (!Sleep(lock, end, milliseconds == 0)) return FALSE;
    }
    const Completion entry = posted_.front();
    posted_.pop_front();
    if (!posted_.empty()) Ring();
    *bytes = entry.bytes;
    *key = entry.key;
    *overlapped = entry.overlapped;
    return entry.error == 0 ? TRUE : platform::Fail(entry.error);
}

}  // namespace platform
