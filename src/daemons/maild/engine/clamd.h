// Inside maild/: one scan by clamd, in a session that each thread keeps open from one scan to the
// next. Which engine is spoken to, and whether it may be believed, is engine.h's affair.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "daemons/maild/engine/connection.h"
#include "daemons/maild/engine/outcome.h"

// One process of the engine, as long as it lives.
struct EngineId {
    std::vector<SocketTarget> targets;  // one, once it has been reached
    // No other process of any engine has it; a session of another one is not used again.
    std::uint64_t generation = 0;
    int connectSeconds = 5;
    const std::atomic<bool>* cancel = nullptr;  // once true, ends what waits; outlives the scan
    // Whether a connection that was made just now leads to this very process. Any thread.
    std::function<bool(const Connection&)> isSame;

    bool IsLocal() const { return !targets.empty() && targets.front().IsLocal(); }
};

struct ClamdAnswer {
    ScanResult result;
    bool otherEngine = false;  // nothing was scanned: the engine has been started anew
};

// Scans an open file, by the end of the time: handed over as a descriptor, streamed where that is
// refused or, over a network, impossible. Any thread.
ClamdAnswer ScanWithClamd(const EngineId& engine, int file, Connection::Clock::time_point end);
