// The engines behind the scan daemon, as it tells of them: by a request without a path that names
// their section.
#pragma once

#include <string>
#include <vector>

// What people are told of an engine.
struct EngineState {
    std::string name;
    std::string address;
    // "up"; "up, not believed about all" (it is silent about a limit); "finds nothing" (not the
    // test pattern); "being probed"; "down: " and why.
    std::string state;
    std::string version;  // as it says; empty: not known
    int outstanding = 0;  // scans
};

// The section that the request names. The answer has a child for each engine: name, address, state,
// version and count in TagObjectName, TagHost, TagStatusText, TagInfoText and TagCount.
inline constexpr char kEnginesSection[] = "engines";

// Asks the daemon of this instance. False: nobody answers within ten seconds.
bool AskForEngines(std::vector<EngineState>& states);

// Messages below the instance whose path begins so are samples of `vtsmtpproxy check`: the daemon
// says what the engine finds in them, does nothing with them, and doesn't count them. The proxy's
// own lie elsewhere.
inline constexpr char kSampleFiles[] = "tmp/check-";
