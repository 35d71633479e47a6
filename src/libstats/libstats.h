// libstats/: the statistics client: records of what happened, for the statistics daemon VTSTATD,
// and its reports, fetched over HTTP.
//
// Senders: InitLibStats once; then, on any thread, GetLibStats, CreateStatsRequest, fill in,
// SendRequest, FreeStatsRequest; ReleaseLibStats at the end. Readers of reports: AddServer,
// CreateHTTPClient, one of the three report operations, ReleaseHTTPClient.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CHTTPClient;

// What a report is asked for. The texts are zero-terminated; a server takes dates as YYYY-MM-DD.
struct ReportQuery {
    char Host[256];  // dotted IPv4 address of a server that AddServer has registered
    int RequestId;
    int Format;  // 1 html, 2 txt, 3 csv
    int AgentId;
    char DateStart[32];
    char DateEnd[32];
    int TimePeriod;
};

// A row can have fewer cells than its table has columns: an empty cell takes no place.
using ReportRow = std::vector<std::string>;
using ReportTable = std::vector<ReportRow>;
using ReportTables = std::vector<ReportTable>;

// The size of a path that names a report file, its zero byte included.
inline constexpr int kReportPathSize = 260;
using ReportPath = std::unique_ptr<char[]>;

namespace libstats {

// One event. Belongs to the thread that made it, from CreateStatsRequest to FreeStatsRequest. Texts
// are copied; a getter's text is the record's own, null if there is none, and valid until the field
// is next set. When memory runs out a plain text becomes null and a list stays as it was.
class CStatsRequest {
  public:
    CStatsRequest() = default;
    CStatsRequest(const CStatsRequest&) = delete;
    CStatsRequest& operator=(const CStatsRequest&) = delete;

    virtual void SetStamp(std::int64_t stamp) = 0;
    // The setters of texts give the stored copy.
    virtual const char* SetSourceHost(const char* host) = 0;
    virtual const char* SetTargetHost(const char* host) = 0;
    virtual void SetAgentId(std::uint32_t agent) = 0;
    virtual void SetServiceId(int service) = 0;
    virtual const char* SetSender(const char* sender) = 0;
    // Join the text to the list with a ';'. Null adds nothing.
    virtual void AddRecipient(const char* recipient) = 0;
    virtual void AddDetail(const char* detail) = 0;
    virtual const char* SetLabel(const char* label) = 0;
    virtual void SetCount(int count) = 0;
    virtual const char* SetTextA(const char* text) = 0;
    virtual const char* SetTextB(const char* text) = 0;
    virtual void SetEventCode(int code) = 0;
    virtual void SetValue(int value) = 0;
    virtual void SetObjectStatus(int status) = 0;
    virtual void SetActionMask(int mask) = 0;
    virtual void ClearDetails() = 0;
    virtual void ClearRecipients() = 0;

    virtual std::int64_t GetStamp() const = 0;
    virtual const char* GetSourceHost() const = 0;
    virtual const char* GetTargetHost() const = 0;
    virtual std::uint32_t GetAgentId() const = 0;
    virtual int GetServiceId() const = 0;
    virtual const char* GetSender() const = 0;
    virtual const char* GetRecipients() const = 0;
    virtual const char* GetDetails() const = 0;
    virtual const char* GetLabel() const = 0;
    virtual int GetCount() const = 0;
    virtual const char* GetTextA() const = 0;
    virtual const char* GetTextB() const = 0;
    virtual int GetEventCode() const = 0;
    virtual int GetValue() const = 0;
    virtual int GetObjectStatus() const = 0;
    virtual int GetActionMask() const = 0;

  protected:
    ~CStatsRequest() = default;
};

// The client. SendRequest and the HTTP client operations may be called by any thread at any time;
// the servers have no lock: AddServer, RemoveServer and the report operations must not overlap.
class CLibStats {
  public:
    CLibStats() = default;
    CLibStats(const CLibStats&) = delete;
    CLibStats& operator=(const CLibStats&) = delete;

    // Registers a statistics server (a name or a dotted address) with the credentials for its
    // reports, in place of an earlier entry. Its own store tells the port. 0, or -1 (no memory, or
    // user and password too long).
    virtual int AddServer(const char* host, const char* user, const char* password) = 0;
    // Always 0.
    virtual int RemoveServer(const char* host) = 0;
    // 0 when the daemon has answered, or negative: not there, lost, or the client has been released
    // meanwhile. Blocks until then.
    virtual int SendRequest(CStatsRequest* record) = 0;
    // Takes the record for delivery by a thread of the client's own, without waiting for the
    // daemon, for threads that have mail to serve: 0, or negative if it is lost. The record stays
    // the caller's. While the daemon isn't there or hangs records wait for it, up to 10,000 and 4
    // MiB; later ones are lost (see OnStatsLost). Hosts should be addresses in numbers: a name is
    // looked up here. A record has no room for IPv6: such a host is told as 0.
    virtual int PostRequest(CStatsRequest* record) = 0;
    // A client that this object owns, or null. One exchange at a time.
    virtual CHTTPClient* CreateHTTPClient() = 0;
    // Deletes *client and sets it to null.
    virtual void ReleaseHTTPClient(CHTTPClient** client) = 0;
    // Fetch a report; null on any failure; what came by then stays on the disk. They take as long
    // as the server makes progress: each wait has 300 s of its own. The file belongs to the caller.
    virtual std::unique_ptr<ReportTables> GetReportTables(CHTTPClient* client,
                                                          const ReportQuery* query) = 0;
    virtual ReportPath GetReportFile(CHTTPClient* client, const ReportQuery* query) = 0;
    virtual ReportPath GetFormattedReportFile(CHTTPClient* client, const ReportQuery* query) = 0;
    // Ends the connection; the client stays usable. Null is ignored.
    virtual void CloseHTTPClient(CHTTPClient* client) = 0;

  protected:
    ~CLibStats() = default;
};

}  // namespace libstats

// A new record, all zero, or null.
libstats::CStatsRequest* CreateStatsRequest();
// Null is ignored.
void FreeStatsRequest(libstats::CStatsRequest* record);
// Makes the instance, or adds a reference: 0, or -1. Needs no running daemon.
int InitLibStats();
// The instance, or null: then nothing is sent. Takes no reference; a call through a pointer that
// was taken before the last ReleaseLibStats fails harmlessly.
libstats::CLibStats* GetLibStats();
// Gives a reference back: always 0. The last one delivers what has been posted if the daemon takes
// it at once, waiting no more than two seconds for one that hangs, and ends the requests under way.
int ReleaseLibStats();
// What is to be told of posted records that are lost: called, on a thread of the client's own, with
// their number when the daemon takes records again. Null: nothing, as at the start. Before the
// first PostRequest.
void OnStatsLost(void (*tell)(std::uint64_t lost));
