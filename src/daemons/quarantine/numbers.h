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

// What counts against the room that there is: its bytes, and its recipients where they are more
// than one line, for a small message may have thousands, which the record has, and the index.
inline long long RoomOf(const KeptMessage& message) {
    constexpr std::size_t kFew = 1000;
    const std::size_t list = message.recipients.size();
    return message.size + (list > kFew ? 2 * static_cast<long long>(list) : 0);
}

struct Numbers {
    std::array<long long, kStates.size()> messages{};  // by state
    long long bytes = 0;                               // of all of them
    long long room = 0;                                // by RoomOf
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
