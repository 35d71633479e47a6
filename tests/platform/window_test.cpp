#include "platform/window.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "net/socket.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/task.h"

using namespace std::chrono_literals;

namespace {

constexpr UINT kKnock = WM_USER + 1;
constexpr int kRounds = 300;

struct Loop {
    SOCKET listener = INVALID_SOCKET;
    std::array<UniqueHandle, 2> events;
    UniqueHandle stop{CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    std::atomic<int> accepted{0};
    std::array<std::atomic<int>, 2> signals{};
    std::promise<void> ended;

    Loop() {
        for (UniqueHandle& each : events) each.Reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
        listener = SocketCreateNonBlocking(SOCK_STREAM, AF_INET);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
        EXPECT_EQ(listen(listener, 128), 0);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop() { closesocket(listener); }

    // Each as often as it says.
    void Take() {
        SocketAddress peer;
        for (SOCKET taken; (taken = SocketAccept(listener, &peer)) != INVALID_SOCKET; ++accepted)
            closesocket(taken);
    }
    void Run() {
        WNDCLASSA look{};
        look.lpszClassName = "window_test";
        look.lpfnWndProc = [](HWND window, UINT message, WPARAM, LPARAM) -> LRESULT {
            auto* self = reinterpret_cast<Loop*>(GetWindowLongPtrA(window, GWLP_USERDATA));
            if (message == kKnock) self->Take();
            return 0;
        };
        RegisterClassA(&look);
        HWND window = CreateWindowExA(0, look.lpszClassName, "", 0, 0, 0, 0, 0, nullptr, nullptr,
                                      nullptr, nullptr);
        ASSERT_NE(window, nullptr);
        SetWindowLongPtrA(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        ASSERT_EQ(WSAAsyncSelect(listener, window, kKnock, FD_ACCEPT), 0);
        const HANDLE waited[] = {stop.Get(), events[0].Get(), events[1].Get()};
        for (DWORD found = 1; found != 0;) {
            found = MsgWaitForMultipleObjects(3, waited, FALSE, 20000, QS_ALLINPUT);
            ASSERT_NE(found, static_cast<DWORD>(WAIT_TIMEOUT)) << "nothing was told of";
            ASSERT_LE(found, 3U);
            if (found == 1 || found == 2) ++signals[found - 1];
            MSG message;
            while (found == 3 && PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) != FALSE)
                DispatchMessageA(&message);
        }
        // Of these the first waits know nothing.
        EXPECT_EQ(MsgWaitForMultipleObjects(1, &waited[1], FALSE, 30, QS_ALLINPUT),
                  static_cast<DWORD>(WAIT_TIMEOUT));
        SetEvent(waited[1]);
        EXPECT_EQ(MsgWaitForMultipleObjects(1, &waited[1], FALSE, 20000, QS_ALLINPUT), 0U);
        DestroyWindow(window);
        EXPECT_EQ(WaitForSingleObject(waited[1], 0), static_cast<DWORD>(WAIT_TIMEOUT));
    }
};

void Connect(const Loop& loop) {
    sockaddr_in where{};
    socklen_t size = sizeof where;
    getsockname(loop.listener, reinterpret_cast<sockaddr*>(&where), &size);
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
    close(client);
}

// However connections and signals meet its waits, the loop is told of each; as a task, beside
// others, and as a thread of its own.
TEST(Window, TheLoopIsToldOfAllThatComes) {
    for (const bool task : {true, true, true, false}) {
        Loop loop;
        const auto run = [](void* self) {
            static_cast<Loop*>(self)->Run();
            static_cast<Loop*>(self)->ended.set_value();
        };
        std::thread own;
        if (task) {
            ASSERT_TRUE(platform::StartTask(run, &loop));
        } else {
            own = std::thread(run, &loop);
        }
        for (int i = 0; i < kRounds; ++i) {
            const auto which = static_cast<std::size_t>(i % 2);
            const int before = loop.signals[which];
            Connect(loop);
            SetEvent(loop.events[which].Get());
            const auto end = std::chrono::steady_clock::now() + 10s;
            while (loop.signals[which] == before || loop.accepted <= i) {
                ASSERT_LT(std::chrono::steady_clock::now(), end) << i;
                std::this_thread::yield();
            }
            if (i % 7 == 0) std::this_thread::sleep_for(1ms);  // it sleeps again
        }
        SetEvent(loop.stop.Get());
        ASSERT_EQ(loop.ended.get_future().wait_for(20s), std::future_status::ready);
        if (own.joinable()) own.join();
    }
}

}  // namespace
