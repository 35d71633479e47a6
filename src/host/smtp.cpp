#include "host/smtp.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "asfilters/asfilters.h"
#include "libstats/libstats.h"
#include "logclient/logclient.h"
#include "metrics/count.h"
#include "net/aside.h"
#include "net/stream.h"
#include "platform/library.h"
#include "platform/memory.h"
#include "platform/socket.h"
#include "platform/task.h"
#include "scanclient/scanclient.h"
#include "session/registry.h"
#include "session/session.h"
#include "trelis/admin.h"
#include "trelis/keys/settings.h"

namespace {

constexpr trelis::Key kActiveConnections{trelis::kProxyKey, "ActiveConnections"};
constexpr DWORD kStartHint = 3000;  // milliseconds, as all below
constexpr DWORD kStopHint = 10000;
constexpr std::chrono::milliseconds kPublishInterval{10000};
// For a port that somebody else has and an address that isn't there yet.
constexpr std::chrono::milliseconds kListenAgain{3000};
constexpr std::chrono::milliseconds kMessageInHand{10000};
constexpr std::chrono::milliseconds kCutSessions{3000};
// For the loop, whose thread may be held up, by a disk for example. The sessions have their time
// then.
constexpr DWORD kHeldUp = 2000;
constexpr int kMostTaken = 256;  // times the most at once, from one backlog
constexpr WORD kSocketVersion = 0x0202;

// Sessions hold pointers into it and may outlive the host: static, with nothing to destroy.
std::array<std::atomic<std::int32_t>, kInterfaceCount> g_activeConnectionCounts{};
std::array<std::atomic<std::int32_t>, kInterfaceCount> g_arrivingCounts{};
std::atomic<bool> g_publishing{false};

std::string ResourceText(UINT number) {
    char text[256];
    LoadStringA(nullptr, number, text, sizeof text);
    return text;
}

void Warn(const std::string& text) {
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text.c_str());
}

void StoreActiveConnections() {
    int sum = 0;
    for (const std::atomic<std::int32_t>& count : g_activeConnectionCounts) sum += count;
    TrelisSetValue(kLocalStore, kActiveConnections.Path().c_str(), std::to_string(sum).c_str());
    // A quiet moment: what a burst of sessions has freed goes back to the system.
    platform::TrimAllocator();
}

// The task, which touches nothing of a host: it may outlive that.
void Publish(void*) {
    try {
        RunAside(StoreActiveConnections);
    } catch (...) {  // memory ran out
    }
    g_publishing = false;
}

// On the statistics client's thread.
void TellStatsLost(std::uint64_t lost) { Warn(std::to_string(lost) + " statistics records lost"); }

}  // namespace

CSMTP::CSMTP()
    : CNTService(kProxyServiceName),
      ActiveConnectionCounts(g_activeConnectionCounts),
      arrivingCounts_(g_arrivingCounts) {
    displayName = ResourceText(120);
    description = ResourceText(121);
    acceptedControls = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    // The store, and the daemon without which every message would be put off.
    dependencies = {"VTREGISTRY", "VTMAILD"};
}

void CSMTP::Stop() {
    // A second wish changes nothing: its report could overtake that of the end.
    if (stopRequested_) return;
    ReportStatus(SERVICE_STOP_PENDING, kStopHint, 0);
    // The flag is for a stop that comes before Run has made the event.
    stopRequested_ = true;
    if (HANDLE event = StopEvent) SetEvent(event);
}

bool CSMTP::CreateSocketWindow() {
    const std::string name = "SMTP_SOCKETWND_" + std::to_string(GetCurrentThreadId());
    WNDCLASSA windowClass{};
    windowClass.lpfnWndProc = SocketWindowProcedure;
    windowClass.hbrBackground = reinterpret_cast<void*>(static_cast<std::uintptr_t>(6));
    windowClass.lpszClassName = name.c_str();
    RegisterClassA(&windowClass);
    SocketWindow =
        CreateWindowExA(0, name.c_str(), name.c_str(), 0, CW_USEDEFAULT, CW_USEDEFAULT,
                        CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr, nullptr, nullptr);
    if (SocketWindow == nullptr) return false;
    SetWindowLongPtrA(SocketWindow, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    return true;
}

// In this order; a failure leaves what was started to the end of the process.
bool CSMTP::StartClients() {
    WSADATA data{};
    if (WSAStartup(kSocketVersion, &data) != 0) return false;
    if (TrelisInit2() < 0) {
        std::fprintf(stderr, "%s: %s\n", kProxyServiceName, trelis::WhyNotOpen().c_str());
        return false;
    }
    OnStatsLost(TellStatsLost);
    if (LogClientInit(displayName.c_str(), kLocalStore) < 0 || MailScanInit() < 0 ||
        InitLibStats() < 0 || CreateASFilters() < 0)
        return false;
    if (asfilters::CASFilters* filters = GetASFilters()) filters->Reload();
    return true;
}

void CSMTP::Run(int, char**) {
    ReportStatus(SERVICE_START_PENDING, kStartHint, 0);
    // Two proxies in one directory would give their spool files the same names.
    if (!lock_.Take(kProxyServiceName)) {
        std::fprintf(stderr, "%s: %s\n", kProxyServiceName, lock_.Error().c_str());
        return;
    }
    const bool counted = metrics::Open(metrics::Program::kProxy);
    CleanSpoolDirectory();
    for (UniqueHandle* each : {&stopEvent_, &serving_, &ended_})
        each->Reset(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    StopEvent = stopEvent_.Get();
    if (stopRequested_) SetEvent(stopEvent_.Get());
    if (!StartClients()) return;
    if (!counted) Warn("can't make metrics/vtsmtpproxy: nothing of it is shown");
    SessionRegistry::Instance().Reopen();
    if (!platform::StartTask(LoopTask, this)) return;
    const HANDLE begun[] = {ended_.Get(), StopEvent, serving_.Get()};
    control::Server owner(draining_);
    if (WaitForMultipleObjects(3, begun, FALSE, INFINITE) == WAIT_OBJECT_0 + 2) {
        if (!owner.Start()) Warn("can't serve this directory's owner: no status, no drain");
        ReportStatus(SERVICE_RUNNING, kStartHint, 0);
    }
    WaitForLoop();

    draining_.End();
    EndSessions();
    owner.Stop();
    DestroyASFilters();
    ReleaseLibStats();
    MailScanUninit();
    LogClientUninit();
    // A session that waited for one of those has been woken by their end.
    SessionRegistry::Instance().WaitIdle(kCutSessions);
    // So does a loop that is still held up.
    sessionsLeft_ = WaitForSingleObject(ended_.Get(), 0) != WAIT_OBJECT_0 ||
                    !SessionRegistry::Instance().Empty();
    scanLimit_.End();
    TrelisUninit();
    WSACleanup();
    StopEvent = nullptr;
}

void CSMTP::WaitForLoop() {
    const HANDLE over[] = {ended_.Get(), StopEvent};
    WaitForMultipleObjects(2, over, FALSE, INFINITE);
    WaitForSingleObject(ended_.Get(), kHeldUp);
}

void CSMTP::LoopTask(void* self) {
    CSMTP& host = *static_cast<CSMTP*>(self);
    try {
        host.Serve();
    } catch (...) {  // leads to the same teardown as a stop
    }
    // Nobody accepts any more: a client is better refused at once than left without a greeting.
    host.listeners_.CloseAll();
    DestroyWindow(std::exchange(host.SocketWindow, nullptr));
    SetEvent(host.ended_.Get());
}

void CSMTP::Serve() {
    MSG message;
    PeekMessageA(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
    if (!CreateSocketWindow()) return;
    // The watch comes first: a change during the reading is told of, not missed.
    const trelis::Watch watch(trelis::kInterfacesKey);
    scanLimit_.Load();
    LoadInterfaces();
    const UniqueHandle notification(OpenEventA(EVENT_ALL_ACCESS, FALSE, watch.EventName()));
    if (!notification) return;
    SetEvent(serving_.Get());
    RunLoop(notification.Get());
}

void CSMTP::RunLoop(HANDLE notification) {
    const HANDLE handles[] = {StopEvent, notification, draining_.Event()};
    // Each wake but one for a listener begins the quiet time anew.
    Deadline quiet(kPublishInterval);
    Deadline again(kListenAgain);
    for (;;) {
        if (again.Over()) {
            listeners_.OpenMissing();
            draining_.SetListeners(listeners_.Open().size());
            again = Deadline(kListenAgain);
        }
        std::chrono::milliseconds limit = quiet.Left();
        if (listeners_.AnyMissing()) limit = std::min(limit, again.Left());
        switch (MsgWaitForMultipleObjects(3, handles, FALSE, static_cast<DWORD>(limit.count()),
                                          QS_ALLINPUT)) {
            case WAIT_OBJECT_0 + 1:
                // Reset first, so that a change during the reload wakes the loop again.
                ResetEvent(notification);
                LoadInterfaces();
                break;
            case WAIT_OBJECT_0 + 2:
                if (const std::optional<bool> wish = draining_.Take()) Drain(*wish);
                break;
            case WAIT_OBJECT_0 + 3: {
                MSG message;
                while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
                    TranslateMessage(&message);
                    DispatchMessageA(&message);
                }
                // However many knock, those who are in have their turn.
                platform::YieldTask();
                break;
            }
            case WAIT_TIMEOUT:
                if (!quiet.Over()) continue;
                PublishActiveConnections();
                break;
            default:
                return;
        }
        quiet = Deadline(kPublishInterval);
    }
}

void CSMTP::Drain(bool draining) {
    if (draining != draining_.Now())
        LogClientPost(kEventInfo, nullptr,
                      draining ? "draining: no new sessions are taken" : "new sessions are taken");
    draining_.Begin(draining);
    if (draining) {
        // Who has been let in by the system is no new one, and would find a broken connection; but
        // there is an end to that.
        for (const SOCKET listener : listeners_.Open()) {
            for (int i = 0; i < kMostTaken && OnAcceptNotification(listener, FD_ACCEPT); ++i) {
            }
        }
        listeners_.CloseAll();
    } else {
        LoadInterfaces();
    }
    draining_.Done(listeners_.Open().size());
}

// By a task of its own: the store may be somebody else's for a while. What can't be done now, the
// next quiet time does.
void CSMTP::PublishActiveConnections() {
    if (!g_publishing.exchange(true) && !platform::StartTask(Publish, nullptr))
        g_publishing = false;
}

// Sessions that wait for a command end at once; those with a message in hand may finish within what
// Stop announced.
void CSMTP::EndSessions() {
    SessionRegistry& sessions = SessionRegistry::Instance();
    sessions.BeginStop();
    if (!sessions.WaitIdle(kMessageInHand)) sessions.CutAll();
}
