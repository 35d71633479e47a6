// Inside libstats/: the one concrete client.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "libstats/httpclient.h"
#include "libstats/libstats.h"
#include "libstats/servers.h"
#include "lipc/lipc.h"
#include "lipc/outbox.h"

class CLibStatsCore final : public libstats::CLibStats {
  public:
    CLibStatsCore() = default;

    // References, counted under the module's lock. The first one brings up sockets and endpoint: 0,
    // or -1.
    int AddReference();
    // True if that was the last one.
    bool DropReference() { return --references_ == 0; }
    // After the last reference: ends the requests under way and gives back all that is held.
    void Empty();

    int AddServer(const char* host, const char* user, const char* password) override;
    int RemoveServer(const char* host) override;
    int SendRequest(libstats::CStatsRequest* record) override;
    int PostRequest(libstats::CStatsRequest* record) override;
    CHTTPClient* CreateHTTPClient() override;
    void ReleaseHTTPClient(CHTTPClient** client) override;
    std::unique_ptr<ReportTables> GetReportTables(CHTTPClient* client,
                                                  const ReportQuery* query) override;
    ReportPath GetReportFile(CHTTPClient* client, const ReportQuery* query) override;
    ReportPath GetFormattedReportFile(CHTTPClient* client, const ReportQuery* query) override;
    void CloseHTTPClient(CHTTPClient* client) override;

  private:
    ReportPath QueryReport(CHTTPClient* client, const ReportQuery* query, int type, int format);
    // The endpoint, held open until LIPCLeave; null if there is none (any more).
    LIPCEndpoint* EnterEndpoint();

    LIPCEndpoint* endpoint_ = nullptr;  // guarded by lock_
    LIPCOutbox outbox_;
    std::map<std::uint32_t, std::string> servers_;     // address as resolved, token
    std::list<std::unique_ptr<CHTTPClient>> clients_;  // guarded by lock_
    std::mutex lock_;
    int references_ = 0;     // guarded by the module's lock
    int port_ = kStatsPort;  // of all servers, host order: the last AddServer decides
};
