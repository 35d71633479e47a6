#include <chrono>
#include <cstdio>
#include <thread>

#include "host/control/view.h"
#include "metrics/snapshot.h"
#include "platform/console.h"
#include "platform/home.h"
#include "text/usage.h"

namespace control {
namespace {

constexpr char kHelp[] =
    "usage: vtsmtpproxy status [--watch] [--json]\n"
    "Shows which programs of the instance run, the engines, and the sessions of the proxy, up to\n"
    "1000. --watch: again each second; --json: one object a line. The exit code: 0 if the proxy\n"
    "runs, 1 if not.\n";
constexpr std::chrono::seconds kAgain{1};
// To the upper left corner of a terminal, and clears what is there.
constexpr char kClear[] = "\x1B[H\x1B[2J";

ProgramView Look(metrics::Program program) {
    ProgramView view;
    view.name = metrics::kProgramNames[static_cast<std::size_t>(program)];
    const auto found = metrics::Read(program);
    if (!found || !found->running) return view;
    view.running = true;
    view.process = found->process;
    view.started = found->started;
    view.version = found->version;
    return view;
}

View LookAtAll() {
    using metrics::Metric;
    using metrics::Program;
    View view;
    view.proxy = Ask(kStatus, view.state);
    const bool instance = platform::MissingHome().empty();
    for (const Program each : {Program::kProxy, Program::kMailDaemon, Program::kLogger,
                               Program::kStatistics, Program::kStore}) {
        view.programs.push_back(instance ? Look(each) : ProgramView{});
        view.programs.back().name = metrics::kProgramNames[static_cast<std::size_t>(each)];
    }
    ProgramView& proxy = view.programs.front();
    // What it says itself counts, also where it could not make its file.
    if (view.proxy == Asked::kAnswered)
        proxy = {proxy.name, true, view.state.process, view.state.started, view.state.version};
    // It is there, but not as far as to serve its owner.
    if (view.proxy == Asked::kNobody && proxy.running) view.proxy = Asked::kSilent;
    const auto daemon = instance ? metrics::Read(Program::kMailDaemon) : std::nullopt;
    for (std::size_t i = 0; daemon && i < daemon->Places(Metric::kEngineUp); ++i) {
        if (!daemon->Gone(Metric::kEngineUp, i))
            view.engines.push_back({daemon->names[i], daemon->Gauge(Metric::kEngineUp, i) > 0});
    }
    return view;
}

}  // namespace

int RunStatus(const std::vector<std::string>& words) {
    const Usage usage{"vtsmtpproxy status", kHelp};
    if (words == std::vector<std::string>{"--help"}) return PrintUsage(usage);
    bool watch = false;
    bool json = false;
    for (const std::string& each : words) {
        if (each != "--watch" && each != "--json") return WrongUsage(usage, "unexpected: " + each);
        (each == "--watch" ? watch : json) = true;
    }
    platform::ReleaseSignals();
    // Of programs that may not be looked at nothing is said, as of those that don't run.
    if (const std::string why = platform::WhyNoHome(); !why.empty()) {
        std::fprintf(stderr, "vtsmtpproxy: %s\n", why.c_str());
        if (platform::MissingHome().empty()) return 1;
    }
    // In a file or a pipe one stands behind the other.
    const bool clear = watch && platform::OutputIsTerminal();
    for (;;) {
        const View view = LookAtAll();
        const std::string text = json ? Json(view) : std::string(clear ? kClear : "") + Text(view);
        if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) return 1;
        if (!watch) return view.programs.front().running ? 0 : 1;
        std::this_thread::sleep_for(kAgain);
    }
}

}  // namespace control
