#include "platform/linux/pipe/completion_queue.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace platform {

CompletionQueue::CompletionQueue()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;  // each write is an edge: never read back
    event.data.ptr = nullptr;
    epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, wake_.Get(), &event);
}

CompletionQueue::~CompletionQueue() {
    while (!posted_.empty()) {
        PollTarget* released = posted_.front().released;
        posted_.pop_front();
        if (released != nullptr) released->Release();
    }
}

bool CompletionQueue::Watch(int descriptor, PollTarget* target) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.ptr = target;
    target->AddRef();
    if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0) return true;
    target->Release();
    return false;
}

void CompletionQueue::Unwatch(int descriptor, PollTarget* target) {
    epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
    Push({0, 0, nullptr, 0, target});
}

void CompletionQueue::Post(DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped, DWORD error) {
    Push({bytes, key, overlapped, error, nullptr});
}

bool CompletionQueue::PopOrSleep(Completion& entry) {
    const std::lock_guard lock(mutex_);
    if (posted_.empty()) {
        sleeping_ = true;
        return false;
    }
    entry = posted_.front();
    posted_.pop_front();
    return true;
}

bool CompletionQueue::WaitForEvents(DWORD milliseconds) {
    std::array<epoll_event, 64> events;
    const int limit =
        milliseconds == INFINITE ? -1 : static_cast<int>(std::min<DWORD>(milliseconds, 1U << 30));
    const int count =
        epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), limit);
    const bool interrupted = count < 0 && errno == EINTR;
    {
        const std::lock_guard lock(mutex_);
        sleeping_ = false;
    }
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.ptr != nullptr)
            static_cast<PollTarget*>(event.data.ptr)->OnReady(event.events);
    }
    if (count > 0 || interrupted) return true;
    return platform::Fail(count == 0 ? WAIT_TIMEOUT : ERROR_INVALID_HANDLE);
}

BOOL CompletionQueue::Take(DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                           DWORD milliseconds) {
    *overlapped = nullptr;
    for (;;) {
        Completion entry{};
        if (!PopOrSleep(entry)) {
            if (!WaitForEvents(milliseconds)) return FALSE;
            continue;
        }
        if (entry.released != nullptr) {
            // With no lock held: the end of a pipe may end its server, which posts again.
            entry.released->Release();
            continue;
        }
        *bytes = entry.bytes;
        *key = entry.key;
        *overlapped = entry.overlapped;
        if (entry.error == 0) return TRUE;
        return platform::Fail(entry.error);
    }
}

void CompletionQueue::Push(const Completion& entry) {
    const std::lock_guard lock(mutex_);
    posted_.push_back(entry);
    if (!sleeping_) return;
    sleeping_ = false;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_.Get(), &one, sizeof one);
}

}  // namespace platform
