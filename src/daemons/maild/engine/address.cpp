#include "daemons/maild/engine/address.h"

#include <netdb.h>
#include <sys/un.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

namespace {

constexpr std::size_t kMostTargets = 8;  // of one name

// What the host stands for; `flags` are those of getaddrinfo.
std::vector<SocketTarget> FindHost(const ServiceAddress& address, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | flags;
    addrinfo* answer = nullptr;
    if (getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &answer) !=
        0)
        return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(answer, freeaddrinfo);
    std::vector<SocketTarget> found;
    for (const addrinfo* each = answer; each != nullptr && found.size() < kMostTargets;
         each = each->ai_next) {
        SocketTarget target;
        if (each->ai_addrlen > sizeof target.address) continue;
        std::memcpy(&target.address, each->ai_addr, each->ai_addrlen);
        target.length = each->ai_addrlen;
        found.push_back(target);
    }
    return found;
}

// Who has an answer waits so long for a newer one.
constexpr std::chrono::seconds kForNewer{1};
constexpr std::chrono::milliseconds kLookAtFlag{200};

}  // namespace

struct NameLookup::State {
    std::mutex mutex;  // guards all below
    std::condition_variable done;
    std::string text;  // of the address
    std::vector<SocketTarget> targets;
    Clock::time_point found;
    bool running = false;
    Clock::time_point begun;     // the look that runs
    std::uint64_t turn = 0;      // its number
    std::uint64_t finished = 0;  // looks
};

std::vector<SocketTarget> FindTargets(const ServiceAddress& address) {
    if (!address.path.empty()) {
        SocketTarget target;
        auto* const local = reinterpret_cast<sockaddr_un*>(&target.address);
        if (address.path.size() >= sizeof local->sun_path) return {};
        local->sun_family = AF_UNIX;
        std::memcpy(local->sun_path, address.path.c_str(), address.path.size());
        target.length = sizeof *local;
        return {target};
    }
    return FindHost(address, 0);
}

NameLookup::NameLookup(std::chrono::seconds believed, Find find)
    : believed_(believed), find_(std::move(find)), state_(std::make_shared<State>()) {}

// Under the lock.
void NameLookup::Begin(const ServiceAddress& address, const std::string& text) {
    state_->text = text;
    state_->running = true;
    state_->begun = Clock::now();
    const std::uint64_t turn = ++state_->turn;
    const auto look = [state = state_, find = find_, address, turn] {
        std::vector<SocketTarget> found = find(address);
        {
            const std::lock_guard lock(state->mutex);
            if (state->turn != turn) return;  // somebody wants another name by now
            state->running = false;
            ++state->finished;
            // What was right a while ago is better than nothing.
            if (!found.empty()) state->targets = std::move(found);
            state->found = Clock::now();
        }
        state->done.notify_all();
    };
    try {
        std::thread(look).detach();
    } catch (const std::system_error&) {  // no thread is to be had: there is no answer
        state_->running = false;
        ++state_->finished;
    }
}

std::vector<SocketTarget> NameLookup::Targets(const ServiceAddress& address, Clock::time_point end,
                                              const std::atomic<bool>* cancel) {
    if (!address.path.empty()) return find_(address);
    if (address.host.empty()) return {};
    if (std::vector<SocketTarget> number = FindHost(address, AI_NUMERICHOST); !number.empty())
        return number;
    const std::string text = address.Text();
    std::unique_lock lock(state_->mutex);
    State& state = *state_;
    if (state.text != text) {
        state.targets.clear();
        Begin(address, text);
    } else if (!state.running) {
        if (!state.targets.empty() && Clock::now() - state.found < believed_) return state.targets;
        Begin(address, text);
    }
    if (!state.targets.empty()) end = std::min(end, state.begun + kForNewer);
    const std::uint64_t finished = state.finished;
    while (state.finished == finished && state.text == text && Clock::now() < end &&
           (cancel == nullptr || !*cancel))
        state.done.wait_until(lock, std::min(end, Clock::now() + kLookAtFlag));
    return state.text == text ? state.targets : std::vector<SocketTarget>();
}
