// Inside maild/: where a service listens that the daemon asks, as the system connects to it.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "net/service_address.h"

struct SocketTarget {
    sockaddr_storage address{};
    socklen_t length = 0;

    bool IsLocal() const { return address.ss_family == AF_UNIX; }
};

// All that the address stands for; none if the path is too long or the name is unknown. A name is
// looked up here and now, which takes as long as the system's resolver does.
std::vector<SocketTarget> FindTargets(const ServiceAddress& address);

// What names stand for, looked up aside: a resolver that hangs holds up nobody for longer than he
// has time. Any number of threads; who asks for the same name waits for the same look.
class NameLookup {
  public:
    using Clock = std::chrono::steady_clock;
    using Find = std::function<std::vector<SocketTarget>(const ServiceAddress&)>;
    // `believed`: how long what was found isn't looked for again.
    explicit NameLookup(std::chrono::seconds believed, Find find = FindTargets);

    // None: it is unknown, or is so until the end. Who knows an older answer waits for a newer one
    // but a second. `cancel`, if it is there and becomes true, ends the wait.
    std::vector<SocketTarget> Targets(const ServiceAddress& address, Clock::time_point end,
                                      const std::atomic<bool>* cancel = nullptr);

  private:
    struct State;
    void Begin(const ServiceAddress& address, const std::string& text);

    const std::chrono::seconds believed_;
    const Find find_;
    std::shared_ptr<State> state_;  // a look that hangs has it for longer than we do
};
