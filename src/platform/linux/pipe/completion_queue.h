// Inside platform/: the completion queue: an epoll set with a queue of posted records.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include "platform/descriptor.h"
#include "platform/linux/wait/object.h"
#include "platform/pipe.h"

namespace platform {

// What an epoll entry leads to. A thread that has fetched an event may be late: behind Unwatch the
// call still comes to an object that is there.
class PollTarget : public Object {
  public:
    virtual void OnReady(std::uint32_t events) = 0;
};

// Any number of threads wait. Each takes one event or record at a time, and one is woken for it.
class CompletionQueue final : public Object {
  public:
    CompletionQueue();
    bool Ready() const { return ready_; }

    // Tells the target what there is to be read, until Unwatch. The watch's number, 0 on failure.
    std::uint64_t Watch(int descriptor, PollTarget* target);
    // Whether the watch also tells of room to write. It tells at once if there is some.
    void WatchRoom(int descriptor, std::uint64_t watch, bool room);
    // Ends a watch; the descriptor is still open.
    void Unwatch(int descriptor, std::uint64_t watch);
    void Post(DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped, DWORD error);
    // As GetQueuedCompletionStatus.
    BOOL Take(DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped, DWORD milliseconds);

  private:
    struct Completion {
        DWORD bytes;
        ULONG_PTR key;
        OVERLAPPED* overlapped;
        DWORD error;
    };
    // Sleeps until something happens, and deals with an event of a descriptor. False, with the last
    // error, if the time is over or it failed.
    bool Sleep(std::unique_lock<std::mutex>& lock,
               std::optional<std::chrono::steady_clock::time_point> end);
    // Wakes one of those who sleep, unless somebody comes for the records anyway. Under mutex_.
    void Ring();

    const UniqueDescriptor epoll_;
    const int wake_;
    bool ready_ = false;
    std::mutex mutex_;               // guards all below; inside a pipe's
    std::deque<Completion> posted_;  // with records in it somebody comes, or nobody sleeps
    int sleeping_ = 0;               // threads in epoll_wait, or on their way there or back
    int coming_ = 0;                 // threads that look at posted_ behind their event
    std::uint64_t lastWatch_ = 0;
    std::map<std::uint64_t, Reference<PollTarget>> targets_;
};

}  // namespace platform
