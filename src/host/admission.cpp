#include <optional>

#include "host/smtp.h"
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

void CSMTP::OnAcceptNotification(SOCKET socket, LPARAM event) {
    if ((event & 0xFFFF) != FD_ACCEPT) return;
    const std::optional<std::size_t> position = listeners_.PositionOf(socket);
    if (!position) return;  // left over from a listener that a reload has closed
    const NetworkInterface& entry = interfaces_[*position];
    std::atomic<std::int32_t>& active = ActiveConnectionCounts[*position];

    CSocket client;
    if (!CSocket(socket).Accept(client, nullptr)) return;
    WSAAsyncSelect(client.Handle(), SocketWindow, 0, 0);
    const auto drop = [&client] {
        client.Shutdown();
        client.Close();
    };
    if (entry.MaxThreads > 0 && active >= entry.MaxThreads) {
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
    if (session->Start() == 0) {
        [[maybe_unused]] CSMTPProxy* const handedOver = session.release();  // its task destroys it
        return;
    }
    drop();
}
