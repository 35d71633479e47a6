// The engines and the spam filter behind the scan daemon, as it knows them: it has probed each of
// them with the standard test pattern.
#include <algorithm>
#include <chrono>
#include <map>
#include <thread>

#include "host/check/parts.h"
#include "metrics/snapshot.h"
#include "scanclient/engines.h"
#include "text/printable.h"

namespace {

constexpr trelis::Key kEngine{trelis::kMailDaemonKey, "Engines/*"};
constexpr trelis::Key kSocket{trelis::kMailDaemonKey, "ClamdSocket"};
constexpr trelis::Key kSpamAddress{trelis::kMailDaemonKey, "Antispam/Address"};
constexpr trelis::Key kSpamWhenDown{trelis::kMailDaemonKey, "Antispam/WhenDown"};
constexpr std::size_t kMostEngines = 16;
constexpr std::size_t kMostShown = 100;  // of a state

constexpr std::chrono::seconds kProbing{10};  // an engine that was set just now
constexpr std::chrono::milliseconds kAgain{200};

// Once none is being probed any more, or it takes too long.
std::vector<EngineState> ProbedEngines() {
    const auto end = std::chrono::steady_clock::now() + kProbing;
    for (;;) {
        std::vector<EngineState> states;
        if (!AskForEngines(states)) return {};
        const bool probing = std::any_of(states.begin(), states.end(), [](const EngineState& each) {
            return each.state == "being probed";
        });
        if (!probing || std::chrono::steady_clock::now() >= end) return states;
        std::this_thread::sleep_for(kAgain);
    }
}

void TellState(const std::string& key, const EngineState& engine, Findings& findings) {
    const std::string shown = engine.address + ": " + CleanText(engine.state, kMostShown);
    if (engine.state == "up") return;
    if (engine.state.starts_with("up"))
        findings.Warn(key, shown + "; what is beyond its limits counts as not scanned",
                      "set its limits as /usr/lib/vantrel/clamd-settings shows, and start it anew");
    else if (engine.state == "finds nothing")
        findings.Error(key, engine.address + ": the standard test pattern is called clean",
                       "give it its signatures: run freshclam where it runs");
    else
        findings.Error(key, "the engine can't be used, " + shown,
                       "start clamd there, or set the address where it listens");
}

}  // namespace

bool CheckEngines(Findings& findings) {
    std::map<std::string, std::string> addresses;  // and the first engine there
    trelis::NameWalk names(kEngine);
    for (std::string name; names.Next(name);) {
        const std::string address = trelis::ReadText(kEngine, {name});
        if (address.empty()) continue;
        const auto [first, fresh] = addresses.emplace(address, name);
        if (!fresh)
            findings.Warn(kEngine.Path({name}), "it is the same as " + first->second,
                          "delete one of both: it would be asked twice");
        else if (addresses.size() > kMostEngines)
            findings.Warn(kEngine.Path({name}),
                          "only the first " + std::to_string(kMostEngines) + " are asked",
                          "delete engines that nobody needs");
    }
    const std::size_t before = findings.Size();
    for (const EngineState& each : ProbedEngines()) {
        if (!addresses.empty())
            TellState(kEngine.Path({each.name}), each, findings);
        else if (each.state.starts_with("up"))  // of what it lacks else the samples tell
            TellState(kSocket.Path(), each, findings);
    }
    return findings.Size() == before;
}

bool CheckSpamFilter(Findings& findings) {
    const std::string address = trelis::ReadText(kSpamAddress);
    if (address.empty() || !trelis::kSpamAddress.fits(address)) return true;
    const auto daemon = metrics::Read(metrics::Program::kMailDaemon);
    if (!daemon || !daemon->running || daemon->Gauge(metrics::Metric::kAntispamUp) > 0) return true;
    const std::string remedy = "start it, or set the address where it listens";
    if (trelis::ReadText(kSpamWhenDown) == "pass")
        findings.Warn(kSpamAddress.Path(), "nobody answers there, so mail passes unjudged", remedy);
    else
        findings.Error(kSpamAddress.Path(), "nobody answers there, so mail is put off", remedy);
    return false;
}
