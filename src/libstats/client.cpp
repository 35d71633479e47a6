// The one instance, its life, and the way of a record to the daemon.
//
// A stop releases the client while sessions still run: one may be waiting in SendRequest, another
// may have got the instance a moment before. So the object itself is made once and stays until the
// process ends; a release only empties it, and whoever comes late finds no endpoint. Whoever is
// inside holds the endpoint open until it leaves; LIPCClose wakes it and waits for it.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <new>

#include "libstats/core.h"
#include "libstats/servers.h"
#include "lipc/deliver.h"
#include "net/socket.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

constexpr char kEndpointName[] = "VTSTATD";
constexpr WORD kSocketVersion = 0x0202;
constexpr int kFailed = -1;
// What a daemon that answers takes at the end; one that hangs holds nobody up for longer.
constexpr std::chrono::milliseconds kStopLimit{2000};

std::mutex g_moduleLock;          // one InitLibStats or ReleaseLibStats at a time
CLibStatsCore* g_core = nullptr;  // guarded by g_moduleLock; never deleted
std::atomic<libstats::CLibStats*> g_instance{nullptr};  // g_core while it has references
std::atomic<void (*)(std::uint64_t)> g_tellLost{nullptr};

// The daemon itself has no use for the number.
LIPCOutbox::Request TellLost(std::uint64_t lost) {
    if (const auto tell = g_tellLost.load()) tell(lost);
    return {};
}

int Flatten(const libstats::CStatsRequest& record, OwnedFlatForm& flat) {
    char stamp[16];
    std::snprintf(stamp, sizeof stamp, "%d", static_cast<std::int32_t>(record.GetStamp()));
    const auto resolve = [](const char* host) {
        return host == nullptr ? 0 : static_cast<std::int32_t>(ResolveAddress(host));
    };
    const std::int32_t source = resolve(record.GetSourceHost());
    const std::int32_t target = resolve(record.GetTargetHost());
    const auto agent = static_cast<std::int32_t>(record.GetAgentId());
    const std::int32_t service = record.GetServiceId();
    const std::int32_t count = record.GetCount();
    const std::int32_t event = record.GetEventCode();
    const std::int32_t value = record.GetValue();
    const std::int32_t actions = record.GetActionMask();
    const std::int32_t status = record.GetObjectStatus();
    const TagMsgField fields[] = {
        {TagStamp, stamp},
        {TagSourceHost, record.GetSourceHost() != nullptr ? &source : nullptr},
        {TagTargetHost, record.GetTargetHost() != nullptr ? &target : nullptr},
        {TagAgentId, &agent},
        {TagServiceId, &service},
        {TagSender, record.GetSender()},
        {TagStatRecipients, record.GetRecipients()},
        {TagLabel, record.GetLabel()},
        {TagCount, &count},
        {TagTextA, record.GetTextA()},
        {TagTextB, record.GetTextB()},
        {TagEventCode, &event},
        {TagValue, &value},
        {TagActionMask, &actions},
        {TagObjectStatus, &status},
        {TagDetails, record.GetDetails()},
    };
    return TagMsgFlatten(fields, flat);
}

}  // namespace

LIPCEndpoint* CLibStatsCore::EnterEndpoint() {
    const std::lock_guard lock(lock_);
    return endpoint_ != nullptr && LIPCEnter(*endpoint_) ? endpoint_ : nullptr;
}

int CLibStatsCore::SendRequest(libstats::CStatsRequest* record) {
    if (record == nullptr) return kFailed;
    OwnedFlatForm flat;
    if (const int status = Flatten(*record, flat); status != TAGMSG_OK) return status;
    LIPCEndpoint* endpoint = EnterEndpoint();
    if (endpoint == nullptr) return kFailed;
    const int result =
        LIPCDeliverWhenFree(endpoint, flat.data, flat.length) == LIPC_OK ? 0 : kFailed;
    LIPCLeave(*endpoint);
    return result;
}

int CLibStatsCore::PostRequest(libstats::CStatsRequest* record) {
    if (record == nullptr) return kFailed;
    OwnedFlatForm flat;
    if (const int status = Flatten(*record, flat); status != TAGMSG_OK) return status;
    return outbox_.Post(flat.data, flat.length);
}

int CLibStatsCore::AddReference() {
    if (references_ == 0) {
        WSADATA data;
        if (WSAStartup(kSocketVersion, &data) != 0) return kFailed;
        LIPCEndpoint* opened = nullptr;
        if (LIPCOpenClient(&opened, kEndpointName) != LIPC_OK) {
            WSACleanup();
            return kFailed;
        }
        const std::lock_guard lock(lock_);
        endpoint_ = opened;
        outbox_.Open(opened, TellLost, metrics::Queue::kStatistics);
    }
    ++references_;
    return 0;
}

void CLibStatsCore::Empty() {
    {
        const std::lock_guard lock(lock_);
        endpoint_ = nullptr;
        clients_.clear();
    }
    outbox_.Close(kStopLimit);  // and the endpoint with it
    WSACleanup();
    servers_.clear();
    port_ = kStatsPort;
}

int InitLibStats() {
    const std::lock_guard lock(g_moduleLock);
    if (g_core == nullptr) g_core = new (std::nothrow) CLibStatsCore;
    if (g_core == nullptr || g_core->AddReference() != 0) return kFailed;
    g_instance = g_core;
    return 0;
}

libstats::CLibStats* GetLibStats() { return g_instance; }

int ReleaseLibStats() {
    const std::lock_guard lock(g_moduleLock);
    if (g_instance == nullptr || !g_core->DropReference()) return 0;
    g_instance = nullptr;
    g_core->Empty();
    return 0;
}

void OnStatsLost(void (*tell)(std::uint64_t lost)) { g_tellLost = tell; }
