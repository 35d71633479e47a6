// The scanning engine: clamd over its Unix socket, in a session that each thread keeps open.
#pragma once

#include <string>

enum class ScanOutcome { kClean, kInfected, kDown, kBusy, kTimedOut, kTooBig, kFailed };

struct ScanResult {
    ScanOutcome outcome;
    std::string text;  // the signature's name, or what the engine said
};

struct ClamdSettings {
    std::string socketPath;
    int connectSeconds = 5;
    int scanSeconds = 120;
};

// Scans an open file: handed over as a descriptor, streamed where that is refused. Any thread.
ScanResult ScanWithClamd(const ClamdSettings& settings, int file);
