// The words of `vtsmtpproxy` for a person who looks at a running proxy, or steers it.
#pragma once

#include <string>
#include <vector>

#include "host/control/protocol.h"

namespace control {

// What stands behind the word. The exit code.
int RunStatus(const std::vector<std::string>& words);
int RunDrain(const std::vector<std::string>& words);

enum class Asked {
    kAnswered,
    kNobody,  // the proxy doesn't run
    kSilent   // it doesn't answer
};
// Asks the proxy of this instance, which it makes no directory for.
Asked Ask(std::string_view word, State& state);

}  // namespace control
