// The scanner's statistics: a record for each message that was judged. No scan waits for the
// statistics daemon.
#pragma once

#include <cstdint>
#include <string>

struct VerdictRecord {
    std::int32_t event = 0;  // of libstats/codes.h
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

    // Behind LogClientInit: lost records are logged. False if the statistics client can't be
    // brought up: then nothing is sent.
    bool Start();
    // As ReleaseLibStats: what waits is delivered if the daemon takes it at once.
    void Stop();
    // Never waits. Any thread, between Start and Stop.
    void Add(const VerdictRecord& record);

  private:
    bool started_ = false;
};
