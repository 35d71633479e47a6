// Inside platform/: the completion queue: an epoll set with a queue of posted records, for one
// waiting thread.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>

#include "platform/descriptor.h"
#include "platform/linux/wait/object.h"
#include "platform/pipe.h"

namespace platform {

// What an epoll entry leads to. The queue holds a reference to each, which its waiting thread alone
// gives back: so no entry of a batch that it has fetched can be gone.
class PollTarget : public Object {
  public:
    virtual void OnReady(std::uint32_t events) = 0;
};

class CompletionQueue final : public Object {
  public:
    CompletionQueue();
    ~CompletionQueue() override;
    bool Ready() const { return epoll_ && wake_; }

    // Tells the target what becomes of the descriptor, until Unwatch. False on failure.
    bool Watch(int descriptor, PollTarget* target);
    // Ends a Watch; the descriptor is still open.
    void Unwatch(int descriptor, PollTarget* target);
    void Post(DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped, DWORD error);
    // As GetQueuedCompletionStatus.
    BOOL Take(DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped, DWORD milliseconds);

  private:
    struct Completion {
        DWORD bytes;
        ULONG_PTR key;
        OVERLAPPED* overlapped;
        DWORD error;
        PollTarget* released;  // not null: a reference to give back, no completion
    };
    // False if there is none; the thread then counts as asleep.
    bool PopOrSleep(Completion& entry);
    // Sleeps until something happens. False, with the last error, if the time is over or it failed.
    bool WaitForEvents(DWORD milliseconds);
    void Push(const Completion& entry);

    const UniqueDescriptor epoll_;
    const UniqueDescriptor wake_;
    std::mutex mutex_;
    std::deque<Completion> posted_;  // guarded by mutex_
    bool sleeping_ = false;  // guarded by mutex_: a thread is in epoll_wait, or on its way there
};

}  // namespace platform
