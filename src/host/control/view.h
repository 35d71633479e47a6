// What `vtsmtpproxy status` shows, and how.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/control/words.h"

namespace control {

struct ProgramView {
    std::string name;
    bool running = false;
    std::uint64_t process = 0;
    std::int64_t started = 0;  // seconds since 1970
    std::string version;
};
struct EngineView {
    std::string name;
    bool up = false;
};
struct View {
    Asked proxy = Asked::kNobody;
    State state;  // of a proxy that has answered
    std::vector<ProgramView> programs;
    std::vector<EngineView> engines;
};

// For people; behind each other, a line each program and session.
std::string Text(const View& view);
// One object in one line.
std::string Json(const View& view);

}  // namespace control
