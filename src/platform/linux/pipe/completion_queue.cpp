#include "platform/linux/pipe/completion_queue.h"

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
constexpr std::uint32_t kToRead = EPOLLIN | EPOLLRDHUP | EPOLLET;

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

CompletionQueue::CompletionQueue()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      wake_(Bell()),
      ready_(epoll_ && Control(epoll_.Get(), EPOLL_CTL_ADD, wake_, kBell, EPOLLONESHOT)) {}

std::uint64_t CompletionQueue::Watch(int descriptor, PollTarget* target) {
    std::uint64_t watch = 0;
    try {
        const std::lock_guard lock(mutex_);
        watch = ++lastWatch_;
        targets_.emplace(watch, Share(target));
    } catch (const std::bad_alloc&) {
        return 0;
    }
    if (Control(epoll_.Get(), EPOLL_CTL_ADD, descriptor, watch, kToRead)) return watch;
    const std::lock_guard lock(mutex_);
    targets_.erase(watch);
    return 0;
}

void CompletionQueue::WatchRoom(int descriptor, std::uint64_t watch, bool room) {
    Control(epoll_.Get(), EPOLL_CTL_MOD, descriptor, watch, room ? kToRead | EPOLLOUT : kToRead);
}

void CompletionQueue::Unwatch(int descriptor, std::uint64_t watch) {
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
    const std::lock_guard lock(mutex_);
    targets_.erase(watch);  // never the last reference: the caller has one
}

void CompletionQueue::Ring() {
    if (sleeping_ > 0 && coming_ == 0)
        Control(epoll_.Get(), EPOLL_CTL_MOD, wake_, kBell, EPOLLIN | EPOLLONESHOT);
}

void CompletionQueue::Post(DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped, DWORD error) {
    const std::lock_guard lock(mutex_);
    posted_.push_back({bytes, key, overlapped, error});
    Ring();
}

bool CompletionQueue::Sleep(std::unique_lock<std::mutex>& lock,
                            std::optional<Clock::time_point> end) {
    epoll_event event{};
    ++sleeping_;
    lock.unlock();
    const int count = epoll_wait(epoll_.Get(), &event, 1, WaitUntil(end));
    const int error = errno;
    lock.lock();
    --sleeping_;
    if (count == 0 && posted_.empty()) return platform::Fail(WAIT_TIMEOUT);
    if (count < 0 && error != EINTR) return platform::Fail(ERROR_INVALID_HANDLE);
    const auto found = count > 0 ? targets_.find(event.data.u64) : targets_.end();
    if (found == targets_.end()) return true;
    Reference<PollTarget> target = Share(found->second.get());
    ++coming_;
    lock.unlock();
    target->OnReady(event.events);
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
        if (!Sleep(lock, end)) return FALSE;
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
