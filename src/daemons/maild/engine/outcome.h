// Inside maild/: what a scan came to.
#pragma once

#include <string>

enum class ScanOutcome {
    kClean,
    kEncrypted,  // clean as far as anybody can look; the engine says that there is more
    kInfected,
    kDown,
    kBusy,
    kTimedOut,
    kUnproven,  // it was not known in time whether it is there
    kTooBig,    // beyond a limit: ours, or one of the engine's
    kNoMeans,   // this process has no descriptor or memory left to ask the engine with
    kFailed
};

struct ScanResult {
    ScanOutcome outcome = ScanOutcome::kFailed;
    std::string text;  // the signature's name, or what the engine said
};
