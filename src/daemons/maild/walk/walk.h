// Inside maild/: the walk over a stored message.
//
// The structure is found line by line in one pass, so that nothing is held but the lines of the
// headers, up to a bound, and a block of the file: a stranger who sends a million parts or
// megabytes of headers costs a bounded time and is told from one who sends a message. What
// receivers could read in different ways is noted on the way (ambiguity.h).
#pragma once

#include <chrono>
#include <span>
#include <string>
#include <vector>

#include "daemons/maild/walk/ambiguity.h"
#include "daemons/maild/walk/part.h"

namespace maild {

struct WalkLimits {
    int maxDepth = 20;
    int maxParts = 1000;
    long long maxHeaderBytes = 256 << 10;  // of one message's or part's headers
    std::chrono::steady_clock::time_point end = std::chrono::steady_clock::time_point::max();
};

enum class WalkEnd { kWhole, kTooComplex, kTimedOut, kCantRead };

struct WalkResult {
    WalkEnd end = WalkEnd::kWhole;
    std::string why;  // where it didn't get to the message's end
    // Each kind once, with the place where it was met first.
    std::vector<Ambiguity> ambiguities;
    int parts = 0;
};

// Walks the file from its start; reads by position, so its offset stays. Any thread.
WalkResult WalkMessage(int file, Dots dots, const WalkLimits& limits,
                       std::span<PartSink* const> sinks);

}  // namespace maild
