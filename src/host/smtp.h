// host/: the service object CSMTP: its run loop, the table of interfaces with their listeners, the
// admission of connections, and the program's main.
//
// The loop that accepts and reloads is a task beside the sessions, on one of the platform's
// threads: no thread is woken for a connection while that one is at work. It alone touches the
// table, the listeners and the hidden window, so none of them has a lock. The thread in Run begins
// it and waits for its end, and a stop takes no longer when its thread is held up.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "host/control/server.h"
#include "host/interface_options.h"
#include "host/listeners.h"
#include "host/scan_limit.h"
#include "net/socket.h"
#include "ntservice/ntservice.h"
#include "platform/file.h"
#include "platform/sync.h"
#include "platform/window.h"
#include "session/interface.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/rows.h"

inline constexpr int kInterfaceCount = 16;
inline constexpr char kProxyServiceName[] = "VTSMTPPROXY";
// Posted to SocketWindow when a connection waits on a listener; wParam the socket, lParam's low 16
// bits the event.
inline constexpr UINT AcceptMessage = 1124;

class CSMTP : public CNTService {
  public:
    CSMTP();

    void Run(int argc, char** argv) override;
    void Stop() override;
    void Shutdown() override { Stop(); }
    // The installed keys: register writes them anew, unregister deletes them with all below.
    int RegisterDefaults() override;
    int UnregisterDefaults() override;
    // As RegisterDefaults; a person of no name leaves it out of the history.
    static int WriteDefaults(const std::string& person);

    // Rebuilds the table from the store; listeners that are wanted as before stay open. Always 0.
    // The loop's.
    int LoadInterfaces();
    // Connections wait on the listener. Whether more may wait than it has taken. The loop's.
    bool OnAcceptNotification(SOCKET socket, LPARAM event);
    // A connection of the interface at this position.
    void Admit(CSocket client, std::size_t position);

    // Sessions, or the loop, were still running when Run returned: the process must end without
    // destroying what they use.
    bool SessionsLeft() const { return sessionsLeft_; }

  private:
    bool CreateSocketWindow();
    bool StartClients();
    static void LoopTask(void* self);
    // The loop with its preparations, and the end of the listeners.
    void Serve();
    void RunLoop(HANDLE notification);
    // For the thread in Run: until the loop has ended by itself or because somebody wishes it, or
    // is seen to be held up.
    void WaitForLoop();
    void ReadTable(std::vector<ListenerWish>& wishes);
    void PublishActiveConnections();
    void EndSessions();
    void Drain(bool draining);
    void LoadInterface(NetworkInterface& entry, const std::string& name);

    // Lives as long as the host: a late signal may still come to it.
    UniqueHandle stopEvent_;
    std::atomic<HANDLE> StopEvent{nullptr};
    UniqueHandle serving_;  // set when the listeners are open
    UniqueHandle ended_;    // set when the loop will touch nothing any more
    HWND SocketWindow = nullptr;
    std::array<NetworkInterface, kInterfaceCount> interfaces_;
    InterfaceIdentities identities_;
    Listeners listeners_{[this](SOCKET listener) {
        WSAAsyncSelect(listener, SocketWindow, AcceptMessage, FD_ACCEPT);
    }};
    // Running sessions by table position. Sessions hold pointers into it, so it outlives the host.
    std::array<std::atomic<std::int32_t>, kInterfaceCount>& ActiveConnectionCounts;
    // Those that are not in there yet.
    std::array<std::atomic<std::int32_t>, kInterfaceCount>& arrivingCounts_;
    std::atomic<bool> stopRequested_{false};
    bool sessionsLeft_ = false;
    control::Draining draining_;
    trelis::Followed<long long> scanLimit_{trelis::kMailDaemonKey, ReadScanLimit};
    platform::InstanceLock lock_;
};

LRESULT SocketWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

// Attaches an outside crash reporter if one is installed. 1 if it is active, else 0; says nothing.
int LoadCrashHandler(const char* label);
