// Events that are posted: nobody waits for the daemon, what it can't take is counted, and the end
// is bounded.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lipc/outbox.h"
#include "logclient/logclient.h"
#include "support/instance.h"
#include "support/pipe_daemon.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"
#include "trelis/trelis.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool Eventually(const std::function<bool()>& check) {
    const auto end = Clock::now() + 90s;
    while (!check()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Keeps the messages of the events that come. While it hangs it has taken one and answers none.
class Logger {
  public:
    ~Logger() {
        hangs = false;
        daemon_.End();
    }
    std::vector<std::string> Messages() {
        const std::lock_guard lock(mutex_);
        return messages_;
    }
    std::atomic<bool> hangs{false};

  private:
    std::optional<std::string> Take(const std::string& flat) {
        OwnedMessage event;
        TagMsgParse(&event.root, flat.data(), static_cast<std::int32_t>(flat.size()));
        const void* text = nullptr;
        TagMsgPeekAttr(event.root, TagMessage, &text);
        {
            const std::lock_guard lock(mutex_);
            messages_.emplace_back(text == nullptr ? "(none)" : static_cast<const char*>(text));
        }
        while (hangs) std::this_thread::sleep_for(1ms);
        return "";
    }
    std::mutex mutex_;
    std::vector<std::string> messages_;  // guarded by mutex_
    PipeDaemon daemon_{"vtlogd", [this](const std::string& flat) { return Take(flat); }};
};

class Post : public testing::Test {
  protected:
    Post() {
        EXPECT_EQ(TrelisInit2(), 0);
        TrelisDelKey(kLocalStore, "/VTUX");
        EXPECT_EQ(LogClientInit("a program", kLocalStore), 0);
    }
    ~Post() override {
        Uninit();
        TrelisUninit();
    }
    Clock::duration Uninit() {
        const auto start = Clock::now();
        if (up_) LogClientUninit();
        up_ = false;
        return Clock::now() - start;
    }
    static int Info(const std::string& text) {
        return LogClientPost(kEventInfo, nullptr, text.c_str());
    }

  private:
    bool up_ = true;
};

TEST_F(Post, EventsArriveInTheirOrderAlsoAtTheEnd) {
    Logger logger;
    std::vector<std::string> expected;
    for (int i = 0; i < 500; ++i) {
        expected.push_back(std::to_string(i));
        EXPECT_EQ(Info(expected.back()), 0);
    }
    EXPECT_LT(Uninit(), 20s);
    EXPECT_EQ(logger.Messages(), expected) << "all are delivered before the end";
    EXPECT_EQ(Info("late"), LIPC_CLOSING);
    EXPECT_EQ(LogClientInit("again", kLocalStore), 0);
    EXPECT_EQ(Info("second life"), 0);
    LogClientUninit();
    EXPECT_EQ(logger.Messages().back(), "second life");
}

TEST_F(Post, RefusesAsTheBlockingCallDoes) {
    EXPECT_EQ(LogClientPost(kEventInfo, nullptr, nullptr), -1);
    EXPECT_EQ(LogClientPost(kEventVirus | kEventWarning, nullptr), -1);
    TrelisSetValue(kLocalStore, "/VTUX/LoggerDaemon/LogLevel/Info", "none");
    EXPECT_TRUE(Eventually([] { return Info("unwanted") == -15; }));
}

TEST_F(Post, LeavesTheCallersTextsAlone) {
    char from[] = "joe(alert)";
    EXPECT_EQ(LogClientPost(kEventVirus, "d", from, "ann", "path", "c", nullptr, "a", "s", nullptr,
                            nullptr, 1),
              0);
    EXPECT_STREQ(from, "joe(alert)");
}

TEST_F(Post, WaitsForADaemonThatComesLater) {
    EXPECT_EQ(Info("early"), 0);
    std::this_thread::sleep_for(50ms);
    Logger logger;
    EXPECT_TRUE(Eventually([&] { return logger.Messages().size() == 1; }));
}

TEST_F(Post, AHungDaemonHoldsNobodyUpAndHearsOfTheLost) {
    Logger logger;
    logger.hangs = true;
    EXPECT_EQ(Info("in its hands"), 0);
    EXPECT_TRUE(Eventually([&] { return logger.Messages().size() == 1; }));
    const auto start = Clock::now();
    int lost = 0;
    for (std::size_t i = 0; i < LIPCOutbox::kMostRequests + 7; ++i)
        lost += Info("e") == LIPC_BUSY ? 1 : 0;
    EXPECT_EQ(lost, 7) << "by number";
    EXPECT_LT(Clock::now() - start, 10s);
    logger.hangs = false;
    EXPECT_TRUE(
        Eventually([&] { return logger.Messages().size() == LIPCOutbox::kMostRequests + 2; }));
    EXPECT_EQ(logger.Messages().back(), "7 events lost");
    Info("next");
    EXPECT_LT(Uninit(), 20s);
    EXPECT_EQ(logger.Messages().back(), "next") << "told once";
}

TEST_F(Post, BytesAreBoundedToo) {
    Logger logger;
    logger.hangs = true;
    const std::string big(1 << 20, 'x');
    int taken = 0;
    for (int i = 0; i < 20; ++i) taken += Info(big) == 0 ? 1 : 0;
    EXPECT_GE(taken, 3);
    EXPECT_LE(taken, 5) << "four megabytes, and one on its way";
}

TEST_F(Post, TheEndDoesNotWaitLongForADaemonThatHangs) {
    Logger logger;
    logger.hangs = true;
    for (int i = 0; i < 10; ++i) Info("e");
    const auto took = Uninit();
    EXPECT_GE(took, 1500ms);
    EXPECT_LT(took, 10s);
}

TEST_F(Post, LinesAreSentTogetherAndInTheirOrder) {
    Logger logger;
    constexpr int kLines = 5000;
    const auto start = Clock::now();
    std::string expected;
    for (int i = 0; i < kLines; ++i) {
        const std::string line = std::to_string(i) + std::string(50, 'x') + '\x1E';
        expected += line;
        LogClientLine(line);
    }
    const auto all = [&logger] {
        std::string text;
        for (const std::string& each : logger.Messages()) text += each;
        return text;
    };
    EXPECT_TRUE(Eventually([&] { return all().size() >= expected.size(); }));
    EXPECT_EQ(all(), expected);
    EXPECT_LT(logger.Messages().size(), static_cast<std::size_t>(kLines) / 50);
    EXPECT_LT(Clock::now() - start, 10s);
    LogClientLine("alone\x1E");
    EXPECT_TRUE(Eventually([&] { return logger.Messages().back() == "alone\x1E"; })) << "in time";
    LogClientLine("last\x1E");
    EXPECT_LT(Uninit(), 20s);
    EXPECT_EQ(logger.Messages().back(), "last\x1E") << "what is gathered is sent at the end";
    LogClientLine("late\x1E");
}

TEST_F(Post, LinesCountOneByOneWhereTheyAreLost) {
    Logger logger;
    logger.hangs = true;
    EXPECT_EQ(Info("in its hands"), 0);
    EXPECT_TRUE(Eventually([&] { return logger.Messages().size() == 1; }));
    constexpr std::size_t kLines = LIPCOutbox::kMostRequests * 2;
    for (std::size_t i = 0; i < kLines; ++i) LogClientLine("0123456789012345678901234567890\x1E");
    std::this_thread::sleep_for(1s);  // the last ones are posted, and lost, by then
    logger.hangs = false;
    const auto lost = [&logger] {
        unsigned long count = 0;
        for (const std::string& each : logger.Messages()) {
            if (each.ends_with(" events lost")) count += std::stoul(each);
        }
        return count;
    };
    EXPECT_TRUE(Eventually([&] { return lost() > 0; }));
    std::size_t lines = 0;
    for (const std::string& each : logger.Messages())
        lines += static_cast<std::size_t>(std::count(each.begin(), each.end(), '\x1E'));
    EXPECT_EQ(lines + lost(), kLines);
    EXPECT_LE(lines, LIPCOutbox::kMostRequests);
    EXPECT_GT(lines, LIPCOutbox::kMostRequests / 2);
}

TEST_F(Post, LinesAreNotWantedWhereTheirClassIsNot) {
    EXPECT_TRUE(LogClientTakesLines());
    TrelisSetValue(kLocalStore, "/VTUX/LoggerDaemon/LogLevel/Info", "none");
    EXPECT_TRUE(Eventually([] { return !LogClientTakesLines(); }));
}

TEST_F(Post, TheEndDoesNotWaitForADaemonThatIsNotThere) {
    for (int i = 0; i < 10; ++i) Info("e");
    std::this_thread::sleep_for(20ms);
    EXPECT_LT(Uninit(), 1500ms) << "no two seconds as for one that hangs";
}

}  // namespace
