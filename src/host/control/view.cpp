#include "host/control/view.h"

#include <cstdio>

#include "text/day.h"
#include "text/printable.h"

namespace control {
namespace {

std::string Padded(const std::string& text, std::size_t width) {
    const std::size_t own = TextWidth(text);
    return text + std::string(own < width ? width - own : 0, ' ');
}

std::string Age(std::int64_t milliseconds) {
    const std::int64_t seconds = milliseconds / 1000;
    char text[48];
    if (seconds < 60) {
        std::snprintf(text, sizeof text, "%lld.%llds", static_cast<long long>(seconds),
                      static_cast<long long>(milliseconds % 1000 / 100));
    } else {
        std::snprintf(
            text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
            static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
    }
    return text;
}

std::string Line(const Session& each) {
    return Padded(each.id, 16) + ' ' + Padded(each.peer.empty() ? "-" : each.peer, 24) + ' ' +
           Padded(each.interface, 12) + ' ' + Padded(each.phase, 10) + ' ' +
           Padded(Age(each.ageMs), 10) + ' ' + std::to_string(each.bytes) + '\n';
}

std::string Sessions(const State& state) {
    std::string text = std::to_string(state.count) + " session" + (state.count == 1 ? "" : "s") +
                       ", " +
                       (state.draining ? "draining: no new ones are taken"
                                       : std::to_string(state.listeners) + " interface" +
                                             (state.listeners == 1 ? " listens" : "s listen")) +
                       '\n';
    if (state.sessions.empty()) return text;
    text += Padded("ID", 16) + ' ' + Padded("PEER", 24) + ' ' + Padded("INTERFACE", 12) + ' ' +
            Padded("PHASE", 10) + ' ' + Padded("AGE", 10) + " BYTES\n";
    for (const Session& each : state.sessions) text += Line(each);
    if (state.count > state.sessions.size())
        text += "and " + std::to_string(state.count - state.sessions.size()) + " more\n";
    return text;
}

const char* Truth(bool value) { return value ? "true" : "false"; }

std::string JsonOf(const ProgramView& each) {
    std::string text =
        "{\"name\": " + QuotedText(each.name) + ", \"running\": " + Truth(each.running);
    if (each.running)
        text += ", \"pid\": " + std::to_string(each.process) +
                ", \"started\": " + std::to_string(each.started) +
                ", \"version\": " + QuotedText(each.version);
    return text + '}';
}

std::string JsonOf(const EngineView& each) {
    return "{\"name\": " + QuotedText(each.name) + ", \"up\": " + Truth(each.up) + '}';
}

std::string JsonOf(const Session& each) {
    return "{\"id\": " + QuotedText(each.id) + ", \"peer\": " + QuotedText(each.peer) +
           ", \"interface\": " + QuotedText(each.interface) +
           ", \"phase\": " + QuotedText(each.phase) +
           ", \"age_ms\": " + std::to_string(each.ageMs) +
           ", \"bytes\": " + std::to_string(each.bytes) + '}';
}

template <typename Type>
std::string ListOf(const std::vector<Type>& all) {
    std::string text = "[";
    for (const Type& each : all) text += (&each == &all.front() ? "" : ", ") + JsonOf(each);
    return text + ']';
}

}  // namespace

std::string Text(const View& view) {
    std::string text;
    for (const ProgramView& each : view.programs) {
        text += Padded(each.name, 12) + ' ';
        if (each.running) {
            text += "runs since " + FormatTime(each.started) + " UTC, pid " +
                    std::to_string(each.process) + ", version " + CleanText(each.version) + '\n';
        } else {
            text += "does not run\n";
        }
    }
    for (const EngineView& each : view.engines)
        text += Padded("engine", 12) + ' ' + each.name + (each.up ? " is up\n" : " is down\n");
    if (view.proxy == Asked::kSilent) return text + "the proxy does not answer\n";
    return view.proxy == Asked::kAnswered ? text + Sessions(view.state) : text;
}

std::string Json(const View& view) {
    std::string text = std::string("{\"answers\": ") + Truth(view.proxy == Asked::kAnswered) +
                       ", \"programs\": " + ListOf(view.programs) +
                       ", \"engines\": " + ListOf(view.engines);
    if (view.proxy == Asked::kAnswered)
        text += std::string(", \"draining\": ") + Truth(view.state.draining) +
                ", \"listeners\": " + std::to_string(view.state.listeners) +
                ", \"session_count\": " + std::to_string(view.state.count) +
                ", \"sessions\": " + ListOf(view.state.sessions);
    return text + "}\n";
}

}  // namespace control
