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

// Shared, any number of threads wait; each takes one event or record at a time, and one is woken
// for it. Otherwise one thread or task at a time uses it, for one pipe: no more than the pipe's own
// descriptor is needed then.
class CompletionQueue final : public Object {
  public:
    explicit CompletionQueue(bool shared);
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
    using End = std::optional<std::chrono::steady_clock::time_point>;
    // What poll gives, with one event and whose it is.
    int WaitForEvent(End end, bool look, std::uint64_t& watch, std::uint32_t& events) const;
    // Sleeps until something happens, and deals with an event of a descriptor. `look`: the end is
    // here. False, with the last error, if the time is over or it failed.
    bool Sleep(std::unique_lock<std::mutex>& lock, End end, bool look);
    // Wakes one of those who sleep, unless somebody comes for the records anyway. Under mutex_.
    void Ring();

    const bool shared_;
    const UniqueDescriptor epoll_;  // shared
    const int bell_;                // shared
    bool ready_ = false;
    int descriptor_ = -1;  // not shared: the one that is watched, and for what
    std::uint32_t wanted_ = 0;
    std::mutex mutex_;               // guards all below; inside a pipe's
    std::deque<Completion> posted_;  // with records in it somebody comes, or nobody sleeps
    int sleeping_ = 0;               // threads in epoll_wait, or on their way there or back
    int coming_ = 0;                 // threads that look at posted_ behind their event
    std::uint64_t lastWatch_ = 0;
    std::map<std::uint64_t, Reference<PollTarget>> targets_;
};

}  // namespace platform
