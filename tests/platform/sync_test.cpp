#include "platform/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "net/address.h"
#include "net/socket.h"
#include "platform/window.h"
#include "support/no_descriptors.h"

namespace {

TEST(Events, ManualStaysAutoIsConsumed) {
    const UniqueHandle manual(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    const UniqueHandle automatic(CreateEventA(nullptr, FALSE, TRUE, nullptr));
    EXPECT_EQ(WaitForSingleObject(manual.Get(), 0), WAIT_TIMEOUT);
    SetEvent(manual.Get());
    EXPECT_EQ(WaitForSingleObject(manual.Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual.Get(), 0), WAIT_OBJECT_0);
    ResetEvent(manual.Get());
    EXPECT_EQ(WaitForSingleObject(manual.Get(), 5), WAIT_TIMEOUT);
    SetEvent(automatic.Get());
    EXPECT_EQ(WaitForSingleObject(automatic.Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic.Get(), 0), WAIT_TIMEOUT)
        << "two signals without a wait are one";
}

TEST(Events, NamesLiveAsLongAsTheirHandles) {
    EXPECT_EQ(OpenEventA(EVENT_ALL_ACCESS, FALSE, "n"), nullptr);
    UniqueHandle made(CreateEventA(nullptr, TRUE, FALSE, "n"));
    UniqueHandle opened(OpenEventA(EVENT_ALL_ACCESS, FALSE, "n"));
    made.Reset();
    SetEvent(opened.Get());
    const UniqueHandle again(CreateEventA(nullptr, TRUE, FALSE, "n"));
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(WaitForSingleObject(again.Get(), 0), WAIT_OBJECT_0);
}

TEST(Waits, GiveTheLowestSignalledIndex) {
    const UniqueHandle a(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    const UniqueHandle b(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    const UniqueHandle c(CreateSemaphoreA(nullptr, 0, 2, nullptr));
    const HANDLE all[] = {a.Get(), b.Get(), c.Get()};
    SetEvent(b.Get());
    EXPECT_EQ(ReleaseSemaphore(c.Get(), 3, nullptr), FALSE) << "above the maximum";
    ReleaseSemaphore(c.Get(), 1, nullptr);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 100), 1U);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 100), 2U);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_TIMEOUT);
}

TEST(Waits, DoNotEndWithTheLastDescriptor) {
    std::vector<UniqueHandle> events;
    std::vector<HANDLE> handles;
    for (int i = 0; i < 40; ++i) {  // more than the platform keeps descriptors for
        events.emplace_back(CreateEventA(nullptr, FALSE, FALSE, nullptr));
        handles.push_back(events.back().Get());
    }
    NoDescriptors none;
    EXPECT_EQ(WaitForMultipleObjects(40, handles.data(), FALSE, 20), WAIT_TIMEOUT);
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        SetEvent(handles[39]);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        none.GiveBack();
        SetEvent(handles[38]);
    });
    EXPECT_EQ(WaitForMultipleObjects(40, handles.data(), FALSE, 10000), 39U);
    EXPECT_EQ(WaitForMultipleObjects(40, handles.data(), FALSE, INFINITE), 38U);
    late.join();
}

TEST(Waits, LoseNoWakeUpBetweenManyThreads) {
    constexpr int kTokens = 20000;
    const UniqueHandle semaphore(CreateSemaphoreA(nullptr, 0, kTokens, nullptr));
    const UniqueHandle stop(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const HANDLE handles[] = {semaphore.Get(), stop.Get()};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0) ++taken;
        });
    }
    for (int i = 0; i < kTokens; ++i) ReleaseSemaphore(semaphore.Get(), 1, nullptr);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (taken < kTokens && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    SetEvent(stop.Get());
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(taken, kTokens);
}

int g_accepts = 0;
CSocket g_listener;
LRESULT AcceptProcedure(HWND, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message != 1124) return 0;
    EXPECT_EQ(static_cast<SOCKET>(wParam), g_listener.Handle());
    EXPECT_EQ(lParam & 0xFFFF, FD_ACCEPT);
    CSocket client;
    if (g_listener.Accept(client, nullptr)) ++g_accepts;
    client.Close();
    return 0;
}

TEST(MessageQueue, NotifiesOncePerWaitingConnectionAndAfterHandles) {
    WNDCLASSA windowClass{};
    windowClass.lpfnWndProc = AcceptProcedure;
    windowClass.lpszClassName = "test";
    ASSERT_NE(RegisterClassA(&windowClass), 0);
    HWND window =
        CreateWindowExA(0, "test", "test", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    SocketAddress address = IpAddress::OfV4(htonl(INADDR_LOOPBACK)).WithPort(0);
    ASSERT_TRUE(g_listener.Create(1) && g_listener.Bind(address) && g_listener.Listen());
    socklen_t length = SocketAddress::kRoom;
    getsockname(g_listener.Handle(), address.Room(), &length);
    ASSERT_EQ(WSAAsyncSelect(g_listener.Handle(), window, 1124, FD_ACCEPT), 0);
    const UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    const HANDLE handles[] = {event.Get()};
    EXPECT_EQ(MsgWaitForMultipleObjects(1, handles, FALSE, 20, QS_ALLINPUT), WAIT_TIMEOUT);

    CSocket clients[3];
    for (CSocket& client : clients) ASSERT_TRUE(client.Create(1) && client.Connect(address));
    while (MsgWaitForMultipleObjects(1, handles, FALSE, 200, QS_ALLINPUT) == 1) {
        MSG message;
        while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) != FALSE)
            DispatchMessageA(&message);
    }
    EXPECT_EQ(g_accepts, 3);
    SetEvent(event.Get());
    EXPECT_EQ(MsgWaitForMultipleObjects(1, handles, FALSE, 200, QS_ALLINPUT), 0U);
    for (CSocket& client : clients) client.Close();
    g_listener.Close();
    DestroyWindow(window);
}

}  // namespace
