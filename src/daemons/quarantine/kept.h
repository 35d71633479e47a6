// quarantine/: messages that are held back, kept for whoever may let them out. vtmaild puts them in
// (quarantine.h), vtquarantine shows, sends and deletes them.
//
//   quarantine/ID.eml    the message as its reader would have it: no dots of the way
//   quarantine/ID.meta   what is known of it, a field a line (form.h)
//   quarantine/index.db  the same of all, to be searched (index.h)
//
// The pair is on the disk before the index says so, and the index before anybody is told: a crash
// leaves a pair that is taken into the index at the next start, never an answer without a message.
//
// This header: what is known of one message.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quarantine {

// As the index and people write it.
namespace state {
inline constexpr char kHeld[] = "held";          // nobody has got it
inline constexpr char kOriginal[] = "original";  // its recipients have it without a part
inline constexpr char kReleasing[] = "releasing";
inline constexpr char kReleased[] = "released";
}  // namespace state

// Texts of strangers, as they came: bytes of any kind.
struct KeptMessage {
    std::string id;
    std::int64_t at = 0;     // milliseconds since 1970
    std::string sender;      // of the envelope; empty: none
    std::string recipients;  // joined by ';'
    std::string peer;        // the client's address
    std::string helo;        // empty where nobody has said it
    std::string logId{};     // of the message in the log; empty where nobody has said it
    std::string subject;     // decoded, in UTF-8
    long long size = 0;      // bytes of the message
    std::string verdict;     // the action that was decided on
    std::string section;
    std::string rule;
    std::string reason;
    std::string state = state::kHeld;
    std::string before{};      // the state that a release left
    std::int64_t changed = 0;  // when the state was, as `at`
};

// Whether a text can be an id: no path, however it is put together.
bool IsId(std::string_view text);

}  // namespace quarantine
