#include "metrics/count.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "metrics/snapshot.h"
#include "platform/shared_file.h"
#include "support/instance.h"

namespace metrics {
namespace {

class Counting : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(Open(Program::kProxy)); }
    static Snapshot Now() { return *Read(Program::kProxy); }
};

TEST_F(Counting, IsSeenAtOnceAndByItsPlace) {
    Add<Metric::kMessages>(Verdict::kDrop);
    Add<Metric::kMessages>(Verdict::kNone, 41);
    Add<Metric::kSpoolBytes>(0, 1000);
    Subtract<Metric::kSpoolBytes>(0, 300);
    Set<Metric::kListeners>(0, 7);
    Set<Metric::kListeners>(0, 3);
    const Snapshot seen = Now();
    const std::uint64_t* const messages = seen.Of(Metric::kMessages);
    EXPECT_EQ(std::vector<std::uint64_t>(messages, messages + 5),
              (std::vector<std::uint64_t>{0, 0, 1, 0, 41}));
    EXPECT_EQ(seen.Gauge(Metric::kSpoolBytes), 700);
    EXPECT_EQ(seen.Gauge(Metric::kListeners), 3);
    EXPECT_EQ(seen.process, static_cast<std::uint64_t>(getpid()));
}

TEST_F(Counting, APlaceThatIsNoneIsNobodyElses) {
    Add<Metric::kReplies>(std::size(kReplyClasses));
    Add<Metric::kReplies>(~std::size_t{0});
    Add<Metric::kSessions>(kInterfacePlaces);
    Subtract<Metric::kSessionsActive>(kInterfacePlaces);
    Set<Metric::kListeners>(1, 5);
    const Snapshot seen = Now();
    EXPECT_EQ(seen.words, std::vector<std::uint64_t>(seen.words.size(), 0));
    EXPECT_EQ(seen.Gauge(Metric::kListeners, 1), 0);
}

TEST_F(Counting, AHistogramsBoundBelongsToItsBucket) {
    constexpr std::size_t kBuckets = std::size(kSizes) + 1;
    struct {
        std::uint64_t value;
        std::size_t bucket;
    } const cases[] = {{0, 0},
                       {kSizes[0], 0},
                       {kSizes[0] + 1, 1},
                       {kSizes[4], 4},
                       {kSizes[kBuckets - 2], kBuckets - 2},
                       {kSizes[kBuckets - 2] + 1, kBuckets - 1}};
    std::vector<std::uint64_t> expected(kBuckets + 1, 0);
    for (const auto& each : cases) {
        Observe<Metric::kMessageSize>(each.value);
        ++expected[each.bucket];
        expected[kBuckets] += each.value;
    }
    const Snapshot seen = Now();
    const std::uint64_t* const words = seen.Of(Metric::kMessageSize);
    EXPECT_EQ(std::vector<std::uint64_t>(words, words + kBuckets + 1), expected);
    // Its neighbours have had nothing of it.
    EXPECT_EQ(words[-1], 0U);
    EXPECT_EQ(words[kBuckets + 1], 0U);
}

TEST_F(Counting, ThreadsLoseNothing) {
    constexpr int kThreads = 9;  // more than there are stripes
    constexpr int kTimes = 20000;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int each = 0; each < kTimes; ++each) {
                Add<Metric::kReplies>(ReplyClass::k2xx);
                Add<Metric::kSessionsActive>(0);
                Observe<Metric::kScanTime>(3);
                Subtract<Metric::kSessionsActive>(0);
            }
        });
    }
    while (Now().Of(Metric::kReplies)[0] < kTimes) {  // seen while it goes on, never below 0
        ASSERT_GE(Now().Gauge(Metric::kSessionsActive), 0);
    }
    for (std::thread& each : threads) each.join();
    const Snapshot seen = Now();
    EXPECT_EQ(seen.Of(Metric::kReplies)[0], std::uint64_t{kThreads} * kTimes);
    EXPECT_EQ(seen.Of(Metric::kScanTime)[0], std::uint64_t{kThreads} * kTimes);
    EXPECT_EQ(seen.Gauge(Metric::kSessionsActive), 0);
}

TEST_F(Counting, InterfacesKeepTheirPlaces) {
    EXPECT_EQ(InterfacePlace("net"), 0U);
    EXPECT_EQ(InterfacePlace("inside"), 1U);
    EXPECT_EQ(InterfacePlace("net"), 0U);
    const std::string large(1000, 'x');
    EXPECT_EQ(InterfacePlace(large), 2U);
    EXPECT_EQ(InterfacePlace(large), 2U);
    EXPECT_EQ(InterfacePlace("a\nb"), 3U);
    EXPECT_EQ(Now().interfaces,
              (std::vector<std::string>{"net", "inside", large.substr(0, kNameBytes - 1), "a?b"}));
    for (std::size_t i = 4; i < kInterfacePlaces + 10; ++i)
        EXPECT_EQ(InterfacePlace("n" + std::to_string(i)), std::min(i, kInterfacePlaces - 1));
    EXPECT_EQ(InterfacePlace("inside"), 1U);
    const Snapshot seen = Now();
    ASSERT_EQ(seen.interfaces.size(), kInterfacePlaces);
    EXPECT_EQ(seen.interfaces.back(), kOtherInterfaces);
}

// Whoever looks at the old file sees what was, not the new process's numbers.
TEST_F(Counting, AnotherRunBeginsAtZero) {
    Add<Metric::kMessages>(Verdict::kForward);
    const platform::SharedFile before =
        platform::SharedFile::View(g_instance.Path() + "/metrics/vtsmtpproxy");
    ASSERT_TRUE(Open(Program::kProxy));
    EXPECT_EQ(Now().Of(Metric::kMessages)[0], 0U);
    Add<Metric::kMessages>(Verdict::kForward, 5);
    EXPECT_EQ(Now().Of(Metric::kMessages)[0], 5U);
    std::uint64_t old = 0;
    for (const auto& stripe : static_cast<const Page*>(before.Data())->stripes)
        old += stripe[kOffsets[static_cast<std::size_t>(Metric::kMessages)]];
    EXPECT_EQ(old, 1U);
}

TEST_F(Counting, GoesOnWhereTheFileCannotBeMade) {
    const std::string folder = g_instance.Path() + "/metrics";
    std::filesystem::rename(folder, folder + ".away");
    std::ofstream(folder) << "no folder";
    EXPECT_FALSE(Open(Program::kProxy));
    Add<Metric::kMessages>(Verdict::kForward);
    std::filesystem::remove(folder);
    std::filesystem::rename(folder + ".away", folder);
    EXPECT_EQ(Now().Of(Metric::kMessages)[0], 1U) << "in the file that it had";
}

}  // namespace
}  // namespace metrics
