// Work on other threads, while all of these are held up.
#include "net/aside.h"

#include <gtest/gtest.h>

#include <atomic>

#include "platform/sync.h"
#include "platform/task.h"

namespace {

constexpr int kThreads = 64;
constexpr DWORD kSoon = 5000;  // milliseconds

UniqueHandle MakeEvent() { return UniqueHandle(CreateEventA(nullptr, TRUE, FALSE, nullptr)); }

struct Held {
    std::atomic<int> begun{0};
    std::atomic<int> ended{0};
    UniqueHandle all = MakeEvent();
    UniqueHandle over = MakeEvent();
    UniqueHandle gone = MakeEvent();
};

void HoldOne(void* argument) {
    Held& held = *static_cast<Held*>(argument);
    EXPECT_TRUE(RunAside([&held] {
        if (++held.begun == kThreads) SetEvent(held.all.Get());
        WaitForSingleObject(held.over.Get(), INFINITE);
    }));
    if (++held.ended == kThreads) SetEvent(held.gone.Get());
}

void DoAtOnce(void* argument) {
    EXPECT_TRUE(RunAside([argument] { SetEvent(static_cast<UniqueHandle*>(argument)->Get()); },
                         Turn::kAtOnce));
}

TEST(Aside, WhatCanNotWaitDoesNot) {
    // Static: tasks may end after this does.
    static Held held;
    for (int i = 0; i < kThreads; ++i) ASSERT_TRUE(platform::StartTask(HoldOne, &held));
    EXPECT_EQ(WaitForSingleObject(held.all.Get(), kSoon), WAIT_OBJECT_0);
    static UniqueHandle done = MakeEvent();
    ASSERT_TRUE(platform::StartTask(DoAtOnce, &done));
    EXPECT_EQ(WaitForSingleObject(done.Get(), kSoon), WAIT_OBJECT_0);
    SetEvent(held.over.Get());
    EXPECT_EQ(WaitForSingleObject(held.gone.Get(), kSoon), WAIT_OBJECT_0);
}

}  // namespace
