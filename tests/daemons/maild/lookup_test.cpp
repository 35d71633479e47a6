// Names that are looked up aside: a resolver that hangs, forgets, or has something new to say.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "daemons/maild/engine/address.h"

namespace {

using Clock = NameLookup::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Targets = std::vector<SocketTarget>;

const ServiceAddress kName{"", "filter.example", 11333};

// A resolver whose answers the test gives, one after the other, when it wants to.
class Resolver {
  public:
    NameLookup::Find Find() {
        return [state = state_](const ServiceAddress&) {
            std::unique_lock lock(state->mutex);
            ++state->asked;
            state->wake.wait(lock, [&] { return !state->answers.empty(); });
            Targets answer = std::move(state->answers.front());
            state->answers.erase(state->answers.begin());
            return answer;
        };
    }
    void Answer(std::size_t count) {
        const std::lock_guard lock(state_->mutex);
        state_->answers.emplace_back(count);
        state_->wake.notify_all();
    }
    int Asked() const {
        const std::lock_guard lock(state_->mutex);
        return state_->asked;
    }

  private:
    struct State {
        std::mutex mutex;
        std::condition_variable wake;
        std::vector<Targets> answers;
        int asked = 0;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

double SecondsOf(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

TEST(Lookup, AResolverThatHangsHoldsUpNobody) {
    Resolver resolver;
    NameLookup names(seconds(60), resolver.Find());
    for (int i = 0; i < 3; ++i) {
        const double took = SecondsOf(
            [&] { EXPECT_TRUE(names.Targets(kName, Clock::now() + milliseconds(50)).empty()); });
        EXPECT_GE(took, 0.04);
        EXPECT_LT(took, 5);
    }
    EXPECT_EQ(resolver.Asked(), 1) << "all wait for the same look";
    std::atomic<bool> cancel{true};
    EXPECT_LT(SecondsOf([&] { names.Targets(kName, Clock::now() + seconds(60), &cancel); }), 5);
    auto waiting = std::async(std::launch::async, [&] {
        return names.Targets(kName, Clock::now() + seconds(60)).size();
    });
    resolver.Answer(2);
    EXPECT_EQ(waiting.get(), 2U);
    EXPECT_EQ(names.Targets(kName, Clock::now()).size(), 2U) << "believed";
    EXPECT_EQ(resolver.Asked(), 1);
    // Another name waits for no other's answer, and doesn't get it.
    const ServiceAddress other{"", "other.example", 1};
    EXPECT_TRUE(names.Targets(other, Clock::now() + milliseconds(50)).empty());
    resolver.Answer(1);
    EXPECT_EQ(names.Targets(other, Clock::now() + seconds(60)).size(), 1U);
}

TEST(Lookup, WhatIsKnownIsUsedWhileNobodyAnswers) {
    Resolver resolver;
    NameLookup names(seconds(0), resolver.Find());
    resolver.Answer(1);
    EXPECT_EQ(names.Targets(kName, Clock::now() + seconds(60)).size(), 1U);
    const double first =
        SecondsOf([&] { EXPECT_EQ(names.Targets(kName, Clock::now() + seconds(60)).size(), 1U); });
    const double second =
        SecondsOf([&] { EXPECT_EQ(names.Targets(kName, Clock::now() + seconds(60)).size(), 1U); });
    EXPECT_LT(first, 20);
    EXPECT_LT(second, 0.9) << "only the first one waits";
    resolver.Answer(0);
    resolver.Answer(3);
    for (int i = 0; i < 200 && names.Targets(kName, Clock::now() + seconds(60)).size() != 3; ++i)
        std::this_thread::sleep_for(milliseconds(10));
    EXPECT_EQ(names.Targets(kName, Clock::now()).size(), 3U);
}

TEST(Lookup, NumbersAndPathsNeedNobody) {
    Resolver resolver;
    NameLookup names(seconds(0), resolver.Find());
    for (const char* text : {"127.0.0.1:11333", "[::1]:11333"})
        EXPECT_EQ(names.Targets(*ServiceAddress::Parse(text), Clock::now()).size(), 1U) << text;
    EXPECT_EQ(resolver.Asked(), 0);
    EXPECT_EQ(
        NameLookup(seconds(0)).Targets(*ServiceAddress::Parse("unix:/run/x"), Clock::now()).size(),
        1U);
}

}  // namespace
