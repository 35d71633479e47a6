// Inside maild/: a connection to an engine, by a Unix socket or TCP. One thread at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <span>
#include <string>

#include "daemons/maild/engine/address.h"
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
    // The targets are tried in turn.
    ScanOutcome Open(std::span<const SocketTarget> targets);
    // Which of them was reached by the last Open.
    std::size_t Reached() const { return reached_; }
    bool Send(const void* data, std::size_t length);
    // The command and the open file behind it.
    bool SendFile(const char* command, std::size_t length, int file);
    // One reply, up to its zero byte: one that is cut off, or is more than one, is none.
    bool Receive(std::string& reply);
    // Some bytes as they come; 0 at the end, -1 on failure.
    ssize_t ReceiveSome(char* data, std::size_t size);
    // Whether the last failure was the end of the time.
    bool TimedOut() const { return timedOut_; }

    // For one on which only small things are sent: another host that takes none of them for seconds
    // has hung up. A local one can't be lost.
    void NoticeLoss();
    // Without waiting: whether the engine has hung up (it was ended, most likely).
    bool HungUp() const;
    // The process at the other end, as the kernel knows it; 0 if it doesn't, as on another host.
    int Peer() const;
    // Without waiting: appends what has come, and sends something small. False: hung up.
    bool Poke(const char* command, std::size_t length, std::string& came);

  private:
    ScanOutcome OpenOne(const SocketTarget& target, Clock::time_point end);
    bool Again(platform::Want want);

    platform::UniqueDescriptor socket_;
    Clock::time_point end_;
    const std::atomic<bool>* cancel_ = nullptr;
    bool timedOut_ = false;
    std::size_t reached_ = 0;
};
