#include "scanclient/scanclient.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "lipc/deliver.h"
#include "lipc/lipc.h"
#include "platform/task.h"
#include "scanclient/reply.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

constexpr char kEndpointName[] = "vtmaild";
constexpr std::uint32_t kDefaultSliceMs = 5000;
constexpr std::uint32_t kMaxSliceSeconds = 0x7FFFFFFF / 1000;
constexpr int kFailed = -1;

enum State { kDown, kComingUp, kUp };
std::atomic<int> g_state{kDown};
std::atomic<int> g_users{0};
std::atomic<LIPCEndpoint*> g_endpoint{nullptr};

int BuildRequest(const MailScanRecord& record, std::uint32_t sliceMs, OwnedFlatForm& flat) {
    const auto slice = static_cast<std::int32_t>(sliceMs);
    const TagMsgField fields[] = {
        {TagPath, record.path},
        {TagSender, record.sender},
        {TagRecipients, record.recipients},
        {TagPeerAddress, record.peerAddress},
        {TagAgentId, &record.agentId},
        {TagObjectActions, record.objectActions},
        {TagMessageActions, record.messageActions},
        {TagNumberText, record.numberText},
        {TagScanParamA, &record.paramA},
        {TagScanParamB, &record.paramB},
        {TagScanSections, &record.scanSections},
        {TagTransferForm, record.transferForm != 0 ? &record.transferForm : nullptr},
        {TagHelo, record.helo != nullptr && record.helo[0] != '\0' ? record.helo : nullptr},
        {TagLogId, record.logId != nullptr && record.logId[0] != '\0' ? record.logId : nullptr},
        {TagPollInterval, record.cancelCallback != nullptr ? &slice : nullptr},
        {TagExtraText, record.extraText[0] != '\0' ? record.extraText : nullptr},
    };
    return TagMsgFlatten(fields, flat);
}

using Clock = std::chrono::steady_clock;

bool Cancelled(const MailScanRecord& record) {
    return record.cancelCallback != nullptr && record.cancelCallback(record.cancelContext) != 0;
}

// Tries until the daemon has the request: all its instances may be busy, or all connections that
// may be open to it. The session is kept alive meanwhile, once a slice; when it has gone the result
// is LIPC_BUSY. What is left of a slice is the limit for the reply.
int SendWhenFree(const MailScanRecord& record, const OwnedFlatForm& flat,
                 std::chrono::milliseconds slice, LIPCConnection** connection, const void** data,
                 std::uint32_t* length) {
    LIPCEndpoint* endpoint = g_endpoint;
    std::uint64_t turn = 0;
    for (Clock::time_point end = Clock::now() + slice;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        const auto limit = static_cast<std::int32_t>(std::max<std::int64_t>(left.count(), 1));
        const int result = LIPCRequestInTurn(endpoint, connection, flat.data, flat.length, data,
                                             length, limit, &turn);
        if (result != LIPC_BUSY) return result;
        const Clock::time_point now = Clock::now();
        if (now < end) {
            platform::SleepFor(std::chrono::ceil<std::chrono::milliseconds>(
                std::min<Clock::duration>(kLIPCBusyPause, end - now)));
        } else {
            if (Cancelled(record)) return result;
            end = Clock::now() + slice;
        }
    }
}

// Sends the request and waits for its reply, which becomes a message. Gives the connection back in
// every case.
int Exchange(const MailScanRecord& record, const OwnedFlatForm& flat, std::uint32_t sliceMs,
             OwnedMessage& reply) {
    LIPCEndpoint* endpoint = g_endpoint;
    LIPCConnection* connection = nullptr;
    const void* data = nullptr;
    std::uint32_t length = 0;
    const auto limit = static_cast<std::int32_t>(sliceMs);
    int result =
        SendWhenFree(record, flat, std::chrono::milliseconds(sliceMs), &connection, &data, &length);
    while (result == LIPC_TIMED_OUT && !Cancelled(record))
        result = LIPCWaitReply(endpoint, connection, &data, &length, limit);
    const int status = result == LIPC_OK ? reply.Parse(data, length) : kFailed;
    if (connection != nullptr) LIPCRelease(endpoint, connection);
    return status;
}

}  // namespace

int MailScanInit() {
    int expected = kDown;
    if (!g_state.compare_exchange_strong(expected, kComingUp)) {
        while (g_state == kComingUp) std::this_thread::yield();
        if (g_state == kUp) ++g_users;
        return 0;
    }
    LIPCEndpoint* endpoint = nullptr;
    if (LIPCOpenClient(&endpoint, kEndpointName) != LIPC_OK) {
        g_users = 0;
        g_state = kDown;
        return kFailed;
    }
    g_endpoint = endpoint;
    ++g_users;
    g_state = kUp;
    return 0;
}

void MailScanUninit() {
    if (--g_users != 0 || g_state != kUp) return;
    g_state = kDown;
    // Scans that still run are woken by the close and fail; later ones find no endpoint.
    LIPCClose(g_endpoint.exchange(nullptr));
}

int MailScanAddRecipient(MailScanRecord* record, const char* recipient) {
    const std::size_t old = record->recipients == nullptr ? 0 : std::strlen(record->recipients);
    const std::size_t added = std::strlen(recipient);
    auto* grown = static_cast<char*>(std::realloc(record->recipients, old + added + 2));
    if (grown == nullptr) return TAGMSG_NO_MEMORY;
    char* at = grown + old;
    if (record->recipients != nullptr) *at++ = ';';
    std::memcpy(at, recipient, added + 1);
    record->recipients = grown;
    return 0;
}

int MailScan(MailScanRecord* record) {
    const std::uint32_t seconds =
        record->timeoutSeconds < kMaxSliceSeconds ? record->timeoutSeconds : kMaxSliceSeconds;
    const std::uint32_t sliceMs = seconds == 0 ? kDefaultSliceMs : seconds * 1000;
    OwnedFlatForm flat;
    if (const int status = BuildRequest(*record, sliceMs, flat); status != TAGMSG_OK) return status;
    OwnedMessage reply;
    if (const int status = Exchange(*record, flat, sliceMs, reply); status != TAGMSG_OK)
        return status;
    return MailScanReadReply(*record, reply.root);
}
