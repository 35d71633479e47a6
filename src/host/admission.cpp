#include <optional>

#include "host/smtp.h"
#include "metrics/count.h"
#include "platform/library.h"
#include "session/session.h"

LRESULT SocketWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* host = reinterpret_cast<CSMTP*>(GetWindowLongPtrA(window, GWLP_USERDATA));
    if (host == nullptr) return DefWindowProcA(window, message, wParam, lParam);
    switch (message) {
        case WM_CREATE:
            return 0;
        case WM_DESTROY:
            PostQuitMessage(0);
            return 0;
        case AcceptMessage:
            host->OnAcceptNotification(static_cast<SOCKET>(wParam), lParam);
            return 0;
        default:
            return DefWindowProcA(window, message, wParam, lParam);
    }
}

// Takes what else has come by now, up to a bound: a burst costs one look at the listeners.
bool CSMTP::OnAcceptNotification(SOCKET socket, LPARAM event) {
    constexpr int kMostAtOnce = 16;
    if ((event & 0xFFFF) != FD_ACCEPT) return false;
    const std::optional<std::size_t> position = listeners_.PositionOf(socket);
    if (!position) return false;  // left over from a listener that a reload has closed
    CSocket client;
    for (int i = 0; i < kMostAtOnce; ++i) {
        if (!CSocket(socket).Accept(client, nullptr)) return false;
        Admit(client, *position);
    }
    return true;
}

void CSMTP::Admit(CSocket client, std::size_t position) {
    const NetworkInterface& entry = interfaces_[position];
    std::atomic<std::int32_t>& active = ActiveConnectionCounts[position];
    std::atomic<std::int32_t>& arriving = arrivingCounts_[position];
    WSAAsyncSelect(client.Handle(), SocketWindow, 0, 0);
    const auto drop = [&client] {
        client.Shutdown();
        client.Close();
    };
    if (entry.MaxThreads > 0 && active + arriving >= entry.MaxThreads) {
        metrics::Add<metrics::Metric::kSessionsRefused>(entry.place);
        metrics::Add<metrics::Metric::kReplies>(metrics::ReplyClass::k4xx);
        char text[512];
        LoadStringA(nullptr, 6000, text, sizeof text);
        client.SendAll(text);
        drop();
        return;
    }
    std::unique_ptr<CSMTPProxy> session = CreateSession(client.Handle());
    if (session == nullptr) {
        drop();
        return;
    }
    const std::shared_ptr<const long long> limit = scanLimit_.Current();  // null: not read yet
    session->ApplyInterface(entry, limit != nullptr ? *limit : 0);
    session->SetConnectionCounter(&active);
    session->SetArrivalCounter(&arriving);
    if (session->Start() == 0) {
        [[maybe_unused]] CSMTPProxy* const handedOver = session.release();  // its task destroys it
        return;
    }
    drop();
}
