// The proxy's side: threads that serve the owner's questions and no mail. There are two, so that
// one who asks and doesn't listen holds up nobody else.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "host/control/protocol.h"
#include "lipc/lipc.h"
#include "platform/sync.h"

namespace control {

// Whether new sessions are taken, as somebody wishes it from another thread, and as the thread with
// the listeners has done it.
class Draining {
  public:
    Draining() : event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}

    // Set while there is a wish to be fulfilled.
    HANDLE Event() const { return event_.Get(); }
    // Wishes it, and waits until it is so, a few seconds at most. Whether it is.
    bool Wish(bool draining);

    // For the thread with the listeners: the wish that has not been fulfilled; that it is being
    // fulfilled; that it is.
    std::optional<bool> Take();
    void Begin(bool draining);
    void Done(std::size_t listeners);
    void SetListeners(std::size_t listeners);
    // It fulfils no more.
    void End();

    bool Now() const { return draining_; }
    std::size_t Listeners() const { return listeners_; }

  private:
    UniqueHandle event_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<bool> wish_;  // guarded by mutex_
    bool done_ = false;         // guarded by mutex_: draining_ is as the listeners are
    bool ended_ = false;        // guarded by mutex_
    std::atomic<bool> draining_{false};
    std::atomic<std::size_t> listeners_{0};
};

class Server {
  public:
    // It outlives the server.
    explicit Server(Draining& draining) : draining_(draining) {}
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() { Stop(); }

    // False: somebody else serves the name, or there is no thread to be had.
    bool Start();
    void Stop();

  private:
    void Work(LIPCEndpoint* endpoint);
    std::string Answer(std::string_view word);

    Draining& draining_;
    LIPCEndpoint* endpoint_ = nullptr;
    std::array<std::thread, 2> threads_;
    std::int64_t started_ = 0;
};

}  // namespace control
