#include "daemons/maild/engine/engines.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "metrics/count.h"

namespace {

using Clock = Connection::Clock;

// How long one is waited for of several that have yet to show whether they are there.
constexpr std::chrono::milliseconds kTurn{500};

// How much a failed scan says about the message, not the engine. What an engine of its own says of
// it comes first, and "down" last: that one is gone says nothing while another one could be asked.
int Weight(ScanOutcome outcome) {
    switch (outcome) {
        case ScanOutcome::kTooBig:
            return 6;
        case ScanOutcome::kFailed:
            return 5;
        case ScanOutcome::kTimedOut:
            return 4;
        case ScanOutcome::kUnproven:
            return 3;
        case ScanOutcome::kBusy:
            return 2;
        case ScanOutcome::kDown:
            return 1;
        default:
            return 0;
    }
}

bool IsFinal(ScanOutcome outcome) {
    return outcome == ScanOutcome::kClean || outcome == ScanOutcome::kEncrypted ||
           outcome == ScanOutcome::kInfected || outcome == ScanOutcome::kNoMeans;
}

// One scan, as it goes from engine to engine.
class Round {
  public:
    Round(int file, Clock::time_point end, const Engines::Believes& believes)
        : file_(file), end_(end), believes_(believes) {}

    // True once there is nothing more to ask.
    bool Ask(Engine& engine, Clock::time_point end, Engine::Ticket ticket) {
        std::shared_ptr<const EngineProof> proof;
        ScanResult result = engine.Scan(file_, std::min(end, end_), proof, ticket);
        const ScanOutcome outcome = result.outcome;
        if (outcome == ScanOutcome::kClean || outcome == ScanOutcome::kEncrypted) {
            if (!believes_(*proof))
                result = {ScanOutcome::kTooBig,
                          "the engine calls it clean, but not that it looked at all of it"};
        } else if (Weight(outcome) > 0 && outcome != ScanOutcome::kTooBig &&
                   outcome != ScanOutcome::kUnproven) {
            engine.Avoid();
        }
        if (!asked_ || IsFinal(result.outcome) || Weight(result.outcome) > Weight(result_.outcome))
            result_ = result;
        asked_ = true;
        return IsFinal(result.outcome);
    }
    // That nobody has answered in time is what "not proven" comes to.
    ScanResult Result() const {
        return result_.outcome == ScanOutcome::kUnproven
                   ? ScanResult{ScanOutcome::kTimedOut, result_.text}
                   : result_;
    }

  private:
    const int file_;
    const Clock::time_point end_;
    const Engines::Believes& believes_;
    ScanResult result_{ScanOutcome::kDown, "there is no engine"};
    bool asked_ = false;
};

}  // namespace

void Engines::Start(const std::shared_ptr<const Settings>& settings) { Follow(settings); }

void Engines::Stop() {
    List all;
    {
        const std::lock_guard lock(mutex_);
        all = engines_;
        all.insert(all.end(), ended_.begin(), ended_.end());
        ended_.clear();
    }
    for (const auto& each : all) each->End();
    for (const auto& each : all) each->Stop();
}

void Engines::Follow(const std::shared_ptr<const Settings>& settings) {
    const std::lock_guard lock(mutex_);
    // Nobody else has one that no scan uses any more; its thread has been told long ago.
    std::erase_if(ended_, [](const auto& each) { return each->Ended() && each.use_count() == 1; });
    List next;
    for (const EngineSetting& setting : settings->engines) {
        const auto same = std::find_if(engines_.begin(), engines_.end(), [&](const auto& each) {
            return each != nullptr && each->Setting() == setting;
        });
        if (same != engines_.end()) {
            next.push_back(std::move(*same));
            next.back()->Follow(settings);
            continue;
        }
        next.push_back(std::make_shared<Engine>(setting, metrics::NamePlace(setting.name)));
        next.back()->Start(settings);
    }
    for (auto& each : engines_) {
        if (each == nullptr) continue;
        each->End();
        ended_.push_back(each);
        const bool known = std::any_of(next.begin(), next.end(), [&](const auto& other) {
            return other->Place() == each->Place();
        });
        if (!known) metrics::SetGone<metrics::Metric::kEngineUp>(each->Place());
    }
    engines_ = std::move(next);
}

Engines::List Engines::All() const {
    const std::lock_guard lock(mutex_);
    return engines_;
}

ScanResult Engines::Scan(int file, Clock::time_point end, const Believes& believes) {
    struct Choice {
        std::shared_ptr<Engine> engine;
        bool up;
        bool avoided;
        int outstanding;
        Engine::Ticket ticket;
    };
    std::vector<Choice> choices;
    for (const auto& each : All())
        choices.push_back(
            {each, each->IsUp(), each->IsAvoided(), each->Outstanding(), each->Want()});
    std::stable_sort(choices.begin(), choices.end(), [](const Choice& a, const Choice& b) {
        return std::tuple(!a.up, a.avoided, a.outstanding) <
               std::tuple(!b.up, b.avoided, b.outstanding);
    });
    const auto middle =
        std::find_if(choices.begin(), choices.end(), [](const Choice& each) { return !each.up; });
    Round round(file, end, believes);
    // Each that is up gets its share of the time, so that one that hangs leaves some for the next.
    for (auto each = choices.begin(); each != middle; ++each) {
        const Clock::time_point now = Clock::now();
        const auto left = middle - each;
        if (now >= end && each != choices.begin()) return round.Result();
        if (round.Ask(*each->engine, now + (end - now) / left, each->ticket)) return round.Result();
    }
    // The others: whichever shows first that it is there.
    std::vector<Choice> waiting(middle, choices.end());
    while (!waiting.empty()) {
        const Clock::time_point until =
            waiting.size() == 1 ? end : std::min(end, Clock::now() + kTurn);
        const Choice choice = waiting.front();
        waiting.erase(waiting.begin());
        if (!choice.engine->Await(choice.ticket, until) && Clock::now() < end)
            waiting.push_back(choice);
        else if (round.Ask(*choice.engine, end, choice.ticket))
            return round.Result();
    }
    return round.Result();
}

std::vector<EngineState> Engines::States() const {
    std::vector<EngineState> states;
    for (const auto& each : All()) states.push_back(each->State());
    return states;
}
