#include "platform/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

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
    const UniqueHandle c(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    const HANDLE all[] = {a.Get(), b.Get(), c.Get()};
    SetEvent(b.Get());
    SetEvent(c.Get());
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
    const UniqueHandle token(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    const UniqueHandle stop(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const HANDLE handles[] = {token.Get(), stop.Get()};
            while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0) ++taken;
        });
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int i = 0; i < kTokens && taken == i; ++i) {
        SetEvent(token.Get());
        while (taken == i && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    }
    SetEvent(stop.Get());
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(taken, kTokens);
}

}  // namespace
