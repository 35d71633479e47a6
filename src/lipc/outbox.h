// Requests whose replies nobody waits for, such as events and records: they are posted without ever
// waiting for the daemon and sent, in their order and one at a time, by a thread of the outbox's
// own.
//
// What waits is bounded in number and bytes; a post beyond that is lost. So is a request that the
// daemon took and didn't answer: sent again it might be counted twice. One that the daemon never
// took, since it isn't there or is busy, waits for it. Lost ones are counted, and told to the
// daemon when it has taken all that waited.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "lipc/lipc.h"
#include "metrics/rows.h"

class LIPCOutbox {
  public:
    using Request = std::vector<char>;
    // Tells of a number of lost requests. Runs on the outbox's thread: what it gives is sent as a
    // request like others; empty: there is nothing to send.
    using TellLost = Request (*)(std::uint64_t lost);

    static constexpr std::size_t kMostRequests = 10000;
    static constexpr std::size_t kMostBytes = std::size_t{4} << 20;

    LIPCOutbox() = default;
    LIPCOutbox(const LIPCOutbox&) = delete;
    LIPCOutbox& operator=(const LIPCOutbox&) = delete;
    // Closed before.
    ~LIPCOutbox() = default;

    // Begins to take requests for the endpoint, which is the outbox's from here on: others may use
    // it until Close. The outbox is new, or has been closed. No thread runs before the first Post.
    // name: under which what waits and what is lost is counted.
    void Open(LIPCEndpoint* endpoint, TellLost tellLost, metrics::Queue name);
    // Copies the request into the queue; never waits for the daemon. Any thread, at any time.
    // LIPC_OK, LIPC_BUSY if there is no room and LIPC_NO_MEMORY (lost, and counted), or
    // LIPC_CLOSING when the outbox is not open. count: how many it counts for, where one request
    // holds several.
    int Post(const void* data, std::uint32_t length, std::uint32_t count = 1);
    // So many were lost before they could be posted.
    void CountLost(std::uint64_t count);
    // Takes no more, lets the daemon have up to `limit` to take what waits, closes the endpoint
    // with all who wait in it, and ends the thread. What a daemon that isn't there has not taken is
    // lost at once.
    void Close(std::chrono::milliseconds limit);

  private:
    struct Waiting {
        Request request;
        std::uint32_t count;
    };
    void Work();
    // One request and its reply. A status of LIPCRequest.
    int Send(const Request& request);
    // Hold the lock but for the exchange. Whether the daemon has answered.
    bool SendHead(std::unique_lock<std::mutex>& lock);
    bool SendLost(std::unique_lock<std::mutex>& lock);
    // Until it is over or the outbox is being closed.
    void Pause(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds pause);
    int Lose(int status, std::uint32_t count);
    // Counts them, for the daemon and for who looks on, as the next does with what waits.
    void Miss(std::uint64_t count);
    void ShowWaiting() const;

    LIPCEndpoint* endpoint_ = nullptr;  // written while no thread runs
    TellLost tellLost_ = nullptr;       // written while no thread runs
    metrics::Queue name_{};             // written while no thread runs
    std::mutex mutex_;                  // guards all below
    std::condition_variable changed_;   // of queue_, open_ or idle_
    std::deque<Waiting> queue_;
    std::size_t bytes_ = 0;    // of queue_
    std::size_t waiting_ = 0;  // what queue_ counts for
    std::uint64_t lost_ = 0;   // not told yet
    bool open_ = false;
    bool idle_ = true;  // the thread has nothing left to do, or there is none
    std::thread thread_;
};
