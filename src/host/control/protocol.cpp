#include "host/control/protocol.h"

#include <array>
#include <charconv>

#include "text/printable.h"

namespace control {
namespace {

template <typename Number>
Number NumberIn(std::string_view text) {
    Number number{};
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// What stands in front of the separator, which goes with it.
std::string_view TakeUpTo(char separator, std::string_view& text) {
    const std::size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return taken;
}

Session ParseSession(std::string_view text) {
    Session session;
    session.id = TakeUpTo('\t', text);
    session.peer = TakeUpTo('\t', text);
    session.interface = TakeUpTo('\t', text);
    session.phase = TakeUpTo('\t', text);
    session.ageMs = NumberIn<std::int64_t>(TakeUpTo('\t', text));
    session.bytes = NumberIn<std::uint64_t>(text);
    return session;
}

}  // namespace

std::string Write(const State& state) {
    std::string text = "version " + state.version + "\npid " + std::to_string(state.process) +
                       "\nstarted " + std::to_string(state.started) + "\ndraining " +
                       (state.draining ? "1" : "0") + "\nlisteners " +
                       std::to_string(state.listeners) + "\nsessions " +
                       std::to_string(state.count) + '\n';
    for (const Session& each : state.sessions) {
        text += "session " + CleanText(each.id) + '\t' + CleanText(each.peer) + '\t' +
                CleanText(each.interface) + '\t' + CleanText(each.phase) + '\t' +
                std::to_string(each.ageMs) + '\t' + std::to_string(each.bytes) + '\n';
    }
    return text;
}

State Parse(std::string_view reply) {
    State state;
    while (!reply.empty()) {
        std::string_view line = TakeUpTo('\n', reply);
        const std::string_view word = TakeUpTo(' ', line);
        if (word == "version") state.version = line;
        if (word == "pid") state.process = NumberIn<std::uint64_t>(line);
        if (word == "started") state.started = NumberIn<std::int64_t>(line);
        if (word == "draining") state.draining = line == "1";
        if (word == "listeners") state.listeners = NumberIn<std::size_t>(line);
        if (word == "sessions") state.count = NumberIn<std::size_t>(line);
        if (word == "session" && state.sessions.size() < kMostSessions)
            state.sessions.push_back(ParseSession(line));
    }
    return state;
}

}  // namespace control
