// The running sessions, so that a stop of the service can end them in good order.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_set>

class CSMTPProxy;

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
