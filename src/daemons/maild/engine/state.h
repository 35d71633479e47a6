// Inside maild/: what people are told of an engine.
#pragma once

#include <string>

struct EngineState {
    std::string name;
    std::string address;
    // "up"; "up, not believed about all" (it is silent about a limit); "finds nothing" (not the
    // test pattern); "being probed"; "down: " and why.
    std::string state;
    std::string version;  // as it says; empty: not known
    int outstanding = 0;  // scans
};
