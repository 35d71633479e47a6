// What the log says of a message or a session, for a person or a program: found in all of it, or
// followed as it comes.
#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

#include "daemons/logd/reader/filter.h"
#include "daemons/logd/reader/log_files.h"
#include "daemons/logd/reader/times.h"
#include "logclient/line.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/home.h"
#include "text/ascii.h"
#include "text/usage.h"

namespace {

constexpr int kExitFound = 0;
constexpr int kExitNothing = 1;
constexpr int kExitUnreadable = 3;
constexpr std::chrono::milliseconds kPause{200};

const Usage kUsage{
    "vtlog",
    "usage: vtlog find|follow [--from ADDRESS] [--to ADDRESS] [--id ID] [--verdict WORD]\n"
    "             [--since TIME] [--until TIME] [--peer ADDRESS] [--json]\n"
    "       vtlog --help | --version\n"
    "`find` prints the lines of the log that have all that is asked for, the oldest first;\n"
    "`follow` those that come from now on. ADDRESS of --from and --to may be @DOMAIN, that of\n"
    "--peer a network. ID: a message's, a session's for it and all its messages, or that of the\n"
    "quarantine, for what people did with a message there. WORD: forward, reject, drop, failed or\n"
    "none. TIME: 2026-01-31, 2026-01-31T23:59:59 (UTC), or how long ago: 30m, 2h, 3d. Exit code:\n"
    "0 something was found, 1 nothing, 2 wrong words, 3 the log can't be read.\n"};

struct Options {
    bool follow = false;
    bool json = false;
    LogFilter filter;
};

volatile std::sig_atomic_t g_stop = 0;
// Once: a second one ends the program, should it hang in a write.
void OnSignal(int which) {
    g_stop = 1;
    std::signal(which, SIG_DFL);
}

int Wrong(const std::string& what, const char* value) { return WrongUsage(kUsage, what + value); }

bool IsVerdict(std::string_view word) {
    constexpr std::string_view kWords[] = {kVerdictForward, kVerdictReject, kVerdictDrop,
                                           kVerdictFailed, kVerdictNone};
    return std::find(std::begin(kWords), std::end(kWords), word) != std::end(kWords);
}

// As it stands in a message or behind a refusal: in brackets, perhaps. "<>" is a sender's own.
std::string WithoutBrackets(const std::string& text) {
    const bool brackets = (text.starts_with('[') && text.ends_with(']')) ||
                          (text.starts_with('<') && text.ends_with('>'));
    return brackets && text.size() > 2 ? text.substr(1, text.size() - 2) : text;
}

constexpr option kOptions[] = {{"from", required_argument, nullptr, 'f'},
                               {"to", required_argument, nullptr, 't'},
                               {"id", required_argument, nullptr, 'i'},
                               {"verdict", required_argument, nullptr, 'v'},
                               {"since", required_argument, nullptr, 's'},
                               {"until", required_argument, nullptr, 'u'},
                               {"peer", required_argument, nullptr, 'p'},
                               {"json", no_argument, nullptr, 'j'},
                               {nullptr, 0, nullptr, 0}};

// Nothing if the option is taken, else the exit code.
std::optional<int> TakeOption(int which, const char* word, Options& options) {
    LogFilter& filter = options.filter;
    switch (which) {
        case 'f':
            filter.from = WithoutBrackets(optarg);
            break;
        case 't':
            filter.to = WithoutBrackets(optarg);
            break;
        case 'i':
            filter.id = WithoutBrackets(optarg);
            break;
        case 'v':
            filter.verdict = LowerCase(optarg);
            if (!IsVerdict(filter.verdict))
                return Wrong("no verdict (forward, reject, drop, failed, none): ", optarg);
            break;
        case 's':
        case 'u': {
            const auto when = ParseWhen(optarg, platform::UtcMilliseconds());
            if (!when)
                return Wrong("no time (30m, 2h, 3d, 2026-01-31, 2026-01-31T23:59:59): ", optarg);
            (which == 's' ? filter.since : filter.until) = when;
            break;
        }
        case 'p':
            filter.peer = IpNetwork::Parse(optarg);
            if (!filter.peer) return Wrong("no address or network: ", optarg);
            break;
        case 'j':
            options.json = true;
            break;
        default:
            return Wrong("unknown option, or its value is missing: ", word);
    }
    return std::nullopt;
}

// Nothing if the program goes on, else its exit code.
std::optional<int> ParseArguments(int argc, char** argv, Options& options) {
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (command != "find" && command != "follow")
        return Wrong("it is told to find or to follow, not: ", argc > 1 ? argv[1] : "(nothing)");
    options.follow = command == "follow";
    opterr = 0;
    optind = 2;
    for (;;) {
        const char* word = optind < argc ? argv[optind] : "";
        const int found = getopt_long(argc, argv, "", kOptions, nullptr);
        if (found == -1) break;
        if (const std::optional<int> code = TakeOption(found, word, options)) return code;
    }
    if (optind < argc) return Wrong("unexpected: ", argv[optind]);
    return std::nullopt;
}

class Output {
  public:
    explicit Output(const Options& options) : options_(options) {}

    // Prints the line if it is wanted.
    void Take(std::string_view line) {
        const std::optional<LogRecord> record = ParseRecord(line);
        if (!record || !options_.filter.Fits(*record)) return;
        found_ = true;
        // As it stands in the log, if that is in the wanted form.
        const bool same = line.starts_with('{') == options_.json;
        const std::string text = same            ? std::string(line)
                                 : options_.json ? RecordAsJson(*record)
                                                 : RecordAsText(*record);
        if (std::printf("%s\n", text.c_str()) < 0) broken_ = true;
    }
    // False: nobody reads any more.
    bool Flush() {
        if (std::fflush(stdout) != 0) broken_ = true;
        return !broken_;
    }
    bool Wanted() const { return !broken_ && g_stop == 0; }
    bool Found() const { return found_; }

  private:
    const Options& options_;
    bool found_ = false;
    bool broken_ = false;
};

constexpr char kNoLog[] = ": is there a log, as vtlogd writes it, and may this user read it?";

int Unreadable(const std::string& what) {
    std::fprintf(stderr, "vtlog: can't read %s\n", what.c_str());
    return kExitUnreadable;
}

int Find(const LogFiles& files, const std::string& path, Output& output) {
    std::deque<LogReader> all = files.OpenAll();
    if (all.empty()) return Unreadable(path + kNoLog);
    for (; !all.empty() && output.Wanted(); all.pop_front()) {
        std::string_view line;
        while (output.Wanted() && all.front().Next(line)) output.Take(line);
    }
    if (!output.Flush() && errno != EPIPE) {  // who closes a pipe has read what he wanted
        std::fputs("vtlog: can't write the output\n", stderr);
        return kExitUnreadable;
    }
    if (output.Found()) return kExitFound;
    if (platform::OutputIsTerminal()) std::fputs("vtlog: nothing found\n", stderr);
    return kExitNothing;
}

int Follow(const LogFiles& files, const std::string& path, Output& output) {
    LogReader file = files.OpenNewest();
    if (!file) return Unreadable(path + kNoLog);
    file.SkipToEnd();
    while (output.Wanted()) {
        // Looked for before the last look at this one: what is written in between is not missed.
        LogReader next = files.OpenNext(file);
        std::string_view line;
        while (output.Wanted() && file.Next(line)) output.Take(line);
        if (!output.Flush()) break;
        if (next) {
            file = std::move(next);
        } else if (file.Shrunk()) {
            file = files.OpenNewest();
        } else {
            std::this_thread::sleep_for(kPause);
        }
    }
    return kExitFound;
}

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerHelp(kUsage, argc, argv)) return *code;
    Options options;
    if (const std::optional<int> code = ParseArguments(argc, argv, options)) return *code;
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
#ifdef SIGPIPE
    std::signal(SIGPIPE, SIG_IGN);  // the failing write tells
#endif
    if (const std::string why = platform::WhyNoHome(); !why.empty()) return Unreadable(why);
    const std::string path = platform::HomePath("log/vtlogd.log");
    const LogFiles files(path);
    Output output(options);
    return options.follow ? Follow(files, path, output) : Find(files, path, output);
}
