#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "host/control/words.h"
#include "platform/console.h"
#include "platform/home.h"
#include "text/usage.h"

namespace control {
namespace {

constexpr char kHelp[] =
    "usage: vtsmtpproxy drain [--wait SECONDS]\n"
    "       vtsmtpproxy drain --cancel\n"
    "Takes no new sessions, and waits until those that run have ended: exit code 0. After --wait\n"
    "seconds, or if the proxy does not run: 1; it goes on draining. --cancel: it takes new\n"
    "sessions again.\n";
constexpr std::chrono::milliseconds kLook{200};

struct Wishes {
    bool cancel = false;
    std::optional<long> seconds;
};

// What is wrong, or nothing.
std::string Read(const std::vector<std::string>& words, Wishes& wishes) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--cancel") {
            wishes.cancel = true;
        } else if (words[i] == "--wait" && i + 1 < words.size()) {
            const std::string& text = words[++i];
            long seconds = -1;
            const auto [end, error] =
                std::from_chars(text.data(), text.data() + text.size(), seconds);
            if (error != std::errc() || end != text.data() + text.size() || seconds < 0 ||
                seconds > 1'000'000'000)
                return "no number of seconds: " + text;
            wishes.seconds = seconds;
        } else {
            return words[i] == "--wait" ? "--wait needs a number of seconds"
                                        : "unexpected: " + words[i];
        }
    }
    return wishes.cancel && wishes.seconds ? "--cancel doesn't wait" : "";
}

void Say(const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

std::string Left(std::size_t count) {
    if (count == 0) return "no session is left";
    return std::to_string(count) + (count == 1 ? " session is left" : " sessions are left");
}

int Complain(Asked asked) {
    const std::string why = platform::WhyNoHome();
    if (!why.empty()) std::fprintf(stderr, "vtsmtpproxy: %s\n", why.c_str());
    if (!why.empty() && platform::MissingHome().empty()) return 1;
    std::fprintf(stderr, "vtsmtpproxy: the proxy %s\n",
                 asked == Asked::kNobody ? "does not run" : "does not answer");
    return 1;
}

// Says how many are left, each time that it is another number.
int WaitForNone(State state, std::optional<long> seconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begun = Clock::now();
    for (std::optional<std::size_t> told; state.count > 0;) {
        if (told != state.count) Say(Left(state.count));
        told = state.count;
        const auto time = Clock::now() - begun;
        if (seconds && time >= std::chrono::seconds(*seconds)) {
            Say("the time is over, the proxy goes on draining");
            return 1;
        }
        std::this_thread::sleep_for(kLook);
        switch (Ask(kCount, state)) {
            case Asked::kAnswered:
                break;
            case Asked::kNobody:
                Say("the proxy has ended");
                return 0;
            case Asked::kSilent:
                return Complain(Asked::kSilent);
        }
        if (!state.draining) {
            Say("the proxy takes new sessions again");
            return 1;
        }
    }
    Say(Left(0));
    return 0;
}

}  // namespace

int RunDrain(const std::vector<std::string>& words) {
    const Usage usage{"vtsmtpproxy drain", kHelp};
    if (words == std::vector<std::string>{"--help"}) return PrintUsage(usage);
    Wishes wishes;
    if (const std::string wrong = Read(words, wishes); !wrong.empty())
        return WrongUsage(usage, wrong);
    platform::ReleaseSignals();
    State state;
    if (const Asked asked = Ask(wishes.cancel ? kCancel : kDrain, state); asked != Asked::kAnswered)
        return Complain(asked);
    if (!wishes.cancel) return WaitForNone(std::move(state), wishes.seconds);
    Say("the proxy takes new sessions");
    return 0;
}

}  // namespace control
