#include "platform/task.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net/aside.h"
#include "net/stream.h"
#include "platform/sync.h"
#include "support/no_memory.h"

using namespace std::chrono_literals;

namespace {

// Runs the work as a task.
std::future<void> Start(std::function<void()> work) {
    auto* const task = new std::packaged_task<void()>(std::move(work));
    std::future<void> done = task->get_future();
    const bool started = platform::StartTask(
        [](void* argument) {
            const std::unique_ptr<std::packaged_task<void()>> mine(
                static_cast<std::packaged_task<void()>*>(argument));
            (*mine)();
        },
        task);
    EXPECT_TRUE(started);
    return done;
}

struct Pair {
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()), 0); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    ~Pair() {
        for (const int each : ends) closesocket(each);
    }
    std::array<int, 2> ends{};
};

// However sender and receiver meet: together with what came before, or alone, nothing that has come
// and no end of a connection is overlooked.
TEST(Tasks, NoByteAndNoEndIsOverlooked) {
    constexpr int kRounds = 40;
    for (const auto pause : {0us, 1us, 50us, 500us}) {
        for (int round = 0; round < kRounds; ++round) {
            Pair pair;
            std::atomic<int> received{0};
            std::future<void> reader = Start([&] {
                Stream stream;
                stream.Attach(CSocket(pair.ends[0]));
                stream.SetLimit(20);
                std::array<char, 64> block;
                for (int count = 0; (count = stream.Read(block.data(), 64, 20s)) > 0;)
                    received += count;
                stream.Detach();
                pair.ends[0] = (closesocket(pair.ends[0]), -1);
            });
            for (int i = 0; i < 5; ++i) {
                ASSERT_EQ(write(pair.ends[1], "some text", 9), 9);
                if (pause > 0us) std::this_thread::sleep_for(pause);
            }
            shutdown(pair.ends[1], SHUT_WR);
            ASSERT_EQ(reader.wait_for(10s), std::future_status::ready) << pause.count();
            EXPECT_EQ(received, 45);
        }
    }
}

TEST(Tasks, ManyTalkAtOnceAndAFullPeerHoldsUpNobody) {
    constexpr int kTasks = 200;
    std::list<Pair> pairs(kTasks);
    std::list<std::future<void>> tasks;
    Pair full;
    std::future<void> stuck = Start([&] {
        Stream stream;
        stream.Attach(CSocket(full.ends[0]));
        stream.SetLimit(20);
        EXPECT_TRUE(stream.Send(std::string(4 << 20, 'x')));
        stream.Detach();
    });
    for (Pair& pair : pairs) {
        tasks.push_back(Start([&pair] {
            Stream stream;
            stream.Attach(CSocket(pair.ends[0]));
            stream.SetLimit(20);
            for (std::string_view line; stream.ReadLine(line, 100) == Stream::Line::kWhole;)
                if (!stream.Send(line)) break;
            stream.Detach();
        }));
    }
    for (int round = 0; round < 20; ++round) {
        for (Pair& pair : pairs) ASSERT_EQ(write(pair.ends[1], "hello\r\n", 7), 7);
        for (Pair& pair : pairs) {
            Stream stream;
            stream.Attach(CSocket(pair.ends[1]));
            stream.SetLimit(10);
            std::string_view line;
            ASSERT_EQ(stream.ReadLine(line, 100), Stream::Line::kWhole);
            ASSERT_EQ(line, "hello\r\n");
        }
    }
    EXPECT_EQ(stuck.wait_for(0s), std::future_status::timeout);
    for (Pair& pair : pairs) shutdown(pair.ends[1], SHUT_WR);
    for (std::future<void>& task : tasks) ASSERT_EQ(task.wait_for(10s), std::future_status::ready);
    std::string taken(1 << 16, '\0');
    for (std::size_t left = 4 << 20; left > 0;) {
        const ssize_t count = read(full.ends[1], taken.data(), taken.size());
        if (count > 0) left -= static_cast<std::size_t>(count);
    }
    EXPECT_EQ(stuck.wait_for(10s), std::future_status::ready);
}

TEST(Tasks, TimesEventsAndErrands) {
    const UniqueHandle event(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    const auto begin = std::chrono::steady_clock::now();
    const auto passed = [begin] { return std::chrono::steady_clock::now() - begin; };
    std::atomic<bool> woken{false};
    // A long wait in front of a short one, and the other way round: each ends in its own time.
    std::future<void> sleeper = Start([&] {
        EXPECT_EQ(WaitForSingleObject(event.Get(), 60000), WAIT_OBJECT_0);
        woken = true;
        platform::SleepFor(100ms);
        EXPECT_EQ(WaitForSingleObject(event.Get(), 50), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObject(event.Get(), 60000), WAIT_OBJECT_0);
    });
    std::future<void> aside = Start([&] {
        std::thread::id there;
        RunAside([&] {
            std::this_thread::sleep_for(300ms);
            there = std::this_thread::get_id();
        });
        EXPECT_NE(there, std::this_thread::get_id());
        EXPECT_THROW(RunAside([] { throw 5; }), int);
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(woken);
    SetEvent(event.Get());
    while (!woken) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(sleeper.wait_for(0s), std::future_status::timeout);
    SetEvent(event.Get());
    ASSERT_EQ(sleeper.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(aside.wait_for(10s), std::future_status::ready);
    EXPECT_GE(passed(), 420ms);
    EXPECT_FALSE(platform::InTask());
}

TEST(Tasks, OneThatHasMuchToDoLetsOthersRun) {
    std::atomic<bool> ended{false};
    // As many as keep every thread busy.
    std::vector<std::future<void>> tasks;
    for (unsigned i = 0; i < 2 * std::max(2U, std::thread::hardware_concurrency()); ++i)
        tasks.push_back(Start([&] {
            while (!ended) platform::YieldTask();
        }));
    std::future<void> other = Start([] { platform::SleepFor(10ms); });
    EXPECT_EQ(other.wait_for(10s), std::future_status::ready);
    ended = true;
    for (std::future<void>& task : tasks) ASSERT_EQ(task.wait_for(10s), std::future_status::ready);
}

// Several tasks of a thread wait for the same event, alone or together with others: what one of
// them has been told of is still news to the next.
TEST(Tasks, WhatSeveralWaitForWakesEachOfThem) {
    const unsigned many = 4 * std::max(2U, std::thread::hardware_concurrency());
    for (int round = 0; round < 20; ++round) {
        const UniqueHandle all(CreateEventA(nullptr, TRUE, FALSE, nullptr));
        const UniqueHandle one(CreateEventA(nullptr, FALSE, FALSE, nullptr));
        std::atomic<unsigned> there{0};
        std::vector<std::future<void>> tasks;
        for (unsigned i = 0; i < many; ++i)
            tasks.push_back(Start([&] {
                const HANDLE both[] = {one.Get(), all.Get()};
                ++there;
                EXPECT_NE(WaitForMultipleObjects(2, both, FALSE, 20000), WAIT_TIMEOUT);
            }));
        while (there < many) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(2ms);
        SetEvent(one.Get());
        SetEvent(all.Get());
        for (std::future<void>& task : tasks)
            ASSERT_EQ(task.wait_for(10s), std::future_status::ready) << round;
    }
}

#ifndef __SANITIZE_ADDRESS__
// A wait may be for something on the stack that others work on: it can't be left for want of
// memory.
TEST(Tasks, AWaitNeedsNoMemory) {
    Pair pair;
    constexpr int kHigh = 1000;  // nothing is known of such a descriptor yet
    ASSERT_EQ(dup2(pair.ends[0], kHigh), kHigh);
    std::atomic<bool> there{false};
    SocketReadiness found{};
    std::future<void> task = Start([&] {
        t_poor = there = true;
        platform::SleepFor(20ms);
        found = SocketWait(kHigh, SocketWant::kRead, 20);
        t_poor = false;
    });
    while (!there) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(50ms);
    ASSERT_EQ(write(pair.ends[1], "x", 1), 1);
    ASSERT_EQ(task.wait_for(10s), std::future_status::ready);
    EXPECT_NO_THROW(task.get());
    EXPECT_TRUE(found.ready && !found.exception);
    close(kHigh);
}
#endif

}  // namespace
