// Inside platform/: the one poll that all waits come to.
#pragma once

#include <poll.h>

#include <chrono>
#include <optional>
#include <span>

namespace platform {

// As poll, until the end (nothing: for ever). A signal restarts it with the time that is left; an
// end in the past is one look.
int PollUntil(std::span<pollfd> entries, std::optional<std::chrono::steady_clock::time_point> end);

}  // namespace platform
