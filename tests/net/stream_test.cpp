#include "net/stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <ctime>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace {

class Half : public testing::Test {
  protected:
    Half() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_.data()), 0);
        stream_.Attach(CSocket(ends_[0]));
        stream_.SetLimit(1);
    }
    ~Half() override {
        for (const int each : ends_) close(each);
    }
    void Put(const std::string& text) const {
        EXPECT_EQ(write(ends_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::array<int, 2> ends_{};
    Stream stream_;
};

TEST_F(Half, ALineWaitsForItsRestAndCostsNothingMeanwhile) {
    struct Case {
        const char* there;
        const Deadline* whole;
        std::chrono::milliseconds least;
    };
    const Deadline whole(300ms);
    for (const auto& each : {Case{"first\r\nhalf", nullptr, 1000ms}, Case{"", &whole, 0ms}}) {
        Put(each.there);
        std::string_view line;
        if (each.there[0] != '\0') {
            EXPECT_EQ(stream_.ReadLine(line, 100), Stream::Line::kWhole);
            EXPECT_EQ(line, "first\r\n");
        }
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t work = std::clock();
        EXPECT_EQ(stream_.ReadLine(line, 100, each.whole), Stream::Line::kFailed);
        EXPECT_GE(std::chrono::steady_clock::now() - start, each.least);
        EXPECT_LT(std::clock() - work, CLOCKS_PER_SEC / 4);
    }
    // What was there is not lost by the wait.
    Put(" and whole\r\n");
    std::string_view line;
    EXPECT_EQ(stream_.ReadLine(line, 100), Stream::Line::kWhole);
    EXPECT_EQ(line, "half and whole\r\n");
}

TEST_F(Half, ALineThatNeverStopsComingIsNoWayAroundTheTime) {
    // Always something there: the wait, and with it a look at the time, is never needed.
    Put(std::string(20000, 'x') + "\r\n");
    const Deadline over(0ms);
    std::string_view line;
    EXPECT_EQ(stream_.ReadLine(line, 100, &over), Stream::Line::kFailed);
}

TEST_F(Half, AByteNowAndThenHoldsNobodyForEver) {
    std::atomic<bool> ended{false};
    std::thread peer([&] {
        while (!ended) {
            Put("x");
            std::this_thread::sleep_for(100ms);
        }
    });
    std::string_view line;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stream_.ReadLine(line, 1000), Stream::Line::kFailed);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
    ended = true;
    peer.join();
}

}  // namespace
