// The running sessions, so that a stop of the service can end them in good order.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_set>
#include <utility>
#include <vector>

class CSMTPProxy;
struct SessionView;

class SessionRegistry {
  public:
    // The one registry of the process; never destroyed, so that late threads find it.
    static SessionRegistry& Instance();

    // A session is about to be handed to its task. False: the service is stopping and takes none
    // any more.
    bool Enter(CSMTPProxy* session);
    // The session is about to close its sockets: the registry reaches for it no more.
    void Leave(CSMTPProxy* session);
    // The session's task has nothing left to do.
    void Done();

    // From now on a session ends instead of waiting for a client's command; those that wait now end
    // at once.
    void BeginStop();
    // Cuts the connections of all sessions that are left.
    void CutAll();
    // Waits until no session's task is at work. False if the time was not enough.
    bool WaitIdle(std::chrono::milliseconds limit);
    // Whether no session's task is left at all, at work or not.
    bool Empty();
    // How many sessions there are; adds a view of each, up to so many in all.
    std::size_t Look(std::size_t most, std::vector<SessionView>& views);
    // While one lives, its session's task only sleeps, with nothing in hand: a stop doesn't wait
    // for it.
    class Delay {
      public:
        Delay() { Instance().CountDelayed(1); }
        Delay(const Delay&) = delete;
        Delay& operator=(const Delay&) = delete;
        ~Delay() { Instance().CountDelayed(-1); }
    };
    // For a host that starts anew in the same process.
    void Reopen();

  private:
    void CountDelayed(int change);

    std::mutex mutex_;
    std::condition_variable left_;
    std::unordered_set<CSMTPProxy*> sessions_;  // guarded by mutex_
    int running_ = 0;                           // guarded by mutex_: entered and not done
    int delayed_ = 0;                           // guarded by mutex_: of these, those that sleep
    bool stopping_ = false;                     // guarded by mutex_
};

// A session's place in a count of sessions. One owner, any thread; the count outlives it.
class CountPlace {
  public:
    CountPlace() = default;
    explicit CountPlace(std::atomic<std::int32_t>* count) : count_(count) { ++*count_; }
    CountPlace(const CountPlace&) = delete;
    CountPlace& operator=(const CountPlace&) = delete;
    CountPlace& operator=(CountPlace&& other) noexcept {
        GiveBack();
        count_ = std::exchange(other.count_, nullptr);
        return *this;
    }
    ~CountPlace() { GiveBack(); }

    void GiveBack() {
        if (count_ != nullptr) --*std::exchange(count_, nullptr);
    }
    bool Taken() const { return count_ != nullptr; }

  private:
    std::atomic<std::int32_t>* count_ = nullptr;
};
