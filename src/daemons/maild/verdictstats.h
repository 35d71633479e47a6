// The scanner's statistics: a record for each message that was judged, sent on a thread of its own,
// so that no scan waits for the statistics daemon.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

struct VerdictRecord {
    std::int32_t event = 0;  // of statcodes.h
    std::string peer;        // dotted
    std::string sender;
    std::string recipients;  // joined by ';'
    std::string signature;   // empty: none
    long long size = 0;      // bytes
};

class VerdictStats {
  public:
    VerdictStats() = default;
    VerdictStats(const VerdictStats&) = delete;
    VerdictStats& operator=(const VerdictStats&) = delete;
    ~VerdictStats() { Stop(); }

    // False if the statistics client can't be brought up: then nothing is sent.
    bool Start();
    // Ends the thread; what waits is lost, as is what is being sent.
    void Stop();
    // Never waits: a record that finds the queue full is lost. Any thread.
    void Add(VerdictRecord&& record);

  private:
    void Work();

    std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<VerdictRecord> queue_;  // guarded by mutex_
    bool stopping_ = true;             // guarded by mutex_
    std::thread thread_;
};
