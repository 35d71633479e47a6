// What the quarantine counts.
#pragma once

#include <array>

#include "daemons/quarantine/kept.h"

namespace quarantine {

inline constexpr std::array<const char*, 4> kStates = {state::kHeld, state::kOriginal,
                                                       state::kReleasing, state::kReleased};

// As the index has them.
namespace counter {
inline constexpr char kPushedOut[] = "pushed out";
inline constexpr char kExpired[] = "expired";
inline constexpr char kReleased[] = "released";
}  // namespace counter

struct Numbers {
    std::array<long long, kStates.size()> messages{};  // by state
    long long bytes = 0;                               // of all of them
    // Since the index was made, by whichever program:
    long long pushedOut = 0;  // to make room
    long long expired = 0;    // for their age
    long long released = 0;   // sent on; once more counts once more

    long long All() const {
        long long all = 0;
        for (const long long each : messages) all += each;
        return all;
    }
};

}  // namespace quarantine
