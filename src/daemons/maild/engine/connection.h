// Inside maild/: a connection to clamd's Unix socket. One thread at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>

#include "daemons/maild/engine/outcome.h"
#include "platform/descriptor.h"

class Connection {
  public:
    using Clock = std::chrono::steady_clock;

    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() = default;
    void Close() { socket_.Reset(); }
    bool IsOpen() const { return static_cast<bool>(socket_); }

    // What is done from now on has to be done by then, or until the flag is set (null: none).
    void SetEnd(Clock::time_point end, const std::atomic<bool>* cancel = nullptr);
    // kClean: connected. kBusy: the engine is there and its queue stayed full. kDown. kNoMeans.
    ScanOutcome Open(const std::string& path);
    bool Send(const void* data, std::size_t length);
    // The command and the open file behind it.
    bool SendFile(const char* command, std::size_t length, int file);
    // One reply, up to its zero byte or the end of the connection.
    bool Receive(std::string& reply);
    // Whether the last failure was the end of the time.
    bool TimedOut() const { return timedOut_; }

    // Without waiting: whether the engine has hung up (it was ended, most likely).
    bool HungUp() const;
    // The process at the other end, as the kernel knows it; 0 if it doesn't.
    int Peer() const;
    // Without waiting: appends what has come, and sends something small. False: hung up.
    bool Poke(const char* command, std::size_t length, std::string& came);

  private:
    bool Again(platform::Want want);

    platform::UniqueDescriptor socket_;
    Clock::time_point end_;
    const std::atomic<bool>* cancel_ = nullptr;
    bool timedOut_ = false;
};
