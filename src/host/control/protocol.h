// control/: a running proxy as its owner sees and steers it from another process: `vtsmtpproxy
// status` and `drain`.
//
// This header: what both sides say. A request is one word. Its reply is text, a line each:
//
//   version 2.0.67              of the proxy
//   pid 4711
//   started 1700000000          seconds since 1970
//   draining 0                  1: no new sessions are taken
//   listeners 2                 that are open
//   sessions 3                  all there are
//   session ID <tab> PEER <tab> INTERFACE <tab> PHASE <tab> milliseconds <tab> bytes
//
// The last one for each session, up to kMostSessions, and to `status` alone. A request that is none
// has a reply without data. Lines that a reader doesn't know are for newer ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace control {

// Below pipes/ of the instance, which lets nobody but its owner in.
inline constexpr char kEndpoint[] = "VTSMTPPROXY-CONTROL";
inline constexpr std::string_view kStatus = "status";
inline constexpr std::string_view kCount = "count";
inline constexpr std::string_view kDrain = "drain";
inline constexpr std::string_view kCancel = "cancel";
inline constexpr std::size_t kMostSessions = 1000;

// Texts are clean: no control character is in them.
struct Session {
    std::string id;
    std::string peer;
    std::string interface;
    std::string phase;
    std::int64_t ageMs = 0;
    std::uint64_t bytes = 0;
};

struct State {
    std::string version;
    std::uint64_t process = 0;
    std::int64_t started = 0;
    bool draining = false;
    std::size_t listeners = 0;
    std::size_t count = 0;  // of sessions
    std::vector<Session> sessions;
};

std::string Write(const State& state);
State Parse(std::string_view reply);

}  // namespace control
