// libstats/: the statistics client: records of what happened, for the statistics daemon.
#pragma once

#include <cstdint>

namespace libstats {

// One event. Belongs to the thread that made it, from CreateStatsRequest to FreeStatsRequest; texts
// are copied.
class CStatsRequest {
  public:
    CStatsRequest() = default;
    CStatsRequest(const CStatsRequest&) = delete;
    CStatsRequest& operator=(const CStatsRequest&) = delete;

    virtual const char* SetSourceHost(const char* host) = 0;
    virtual const char* SetTargetHost(const char* host) = 0;
    virtual void SetAgentId(std::uint32_t agent) = 0;
    virtual void SetServiceId(int service) = 0;
    virtual const char* SetSender(const char* sender) = 0;
    virtual void AddRecipient(const char* recipient) = 0;
    virtual void SetEventCode(int code) = 0;
    virtual void SetObjectStatus(int status) = 0;
    virtual void SetActionMask(int mask) = 0;

  protected:
    ~CStatsRequest() = default;
};

// Any thread may send.
class CLibStats {
  public:
    CLibStats() = default;
    CLibStats(const CLibStats&) = delete;
    CLibStats& operator=(const CLibStats&) = delete;
    virtual ~CLibStats() = default;

    // 0 when the daemon has answered, or negative. Blocks until then.
    virtual int SendRequest(CStatsRequest* record) = 0;
};

}  // namespace libstats

// A new record, or null.
libstats::CStatsRequest* CreateStatsRequest();
void FreeStatsRequest(libstats::CStatsRequest* record);
// 0, or -1. Counted.
int InitLibStats();
// The instance, or null: then nothing is sent.
libstats::CLibStats* GetLibStats();
int ReleaseLibStats();
