// Messages in the quarantine, for a person or a program: listed, shown, sent on, deleted.
#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "daemons/logd/reader/times.h"
#include "daemons/quarantine/outward/release.h"
#include "daemons/quarantine/outward/show.h"
#include "logclient/logclient.h"
#include "platform/account.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/home.h"
#include "text/printable.h"
#include "text/usage.h"
#include "tools/quarantine/entries.h"
#include "trelis/admin.h"
#include "trelis/keys/settings.h"
#include "trelis/trelis.h"

namespace {

constexpr int kExitFine = 0;
constexpr int kExitNothing = 1;
constexpr int kMostDays = 100000;

const Usage kUsage{
    "vtquarantine",
    "usage: vtquarantine list [--since TIME] [--limit N] [--json]\n"
    "       vtquarantine find [--from TEXT] [--to TEXT] [--subject TEXT] [--id ID]\n"
    "                    [--section WORD] [--since TIME] [--until TIME] [--limit N] [--json]\n"
    "       vtquarantine show ID [--raw | --part N | --json]\n"
    "       vtquarantine release ID... [--to ADDRESS] [--interface NAME] [--again]\n"
    "       vtquarantine delete ID...\n"
    "       vtquarantine expire [--days N]\n"
    "       vtquarantine --help | --version\n"
    "`list` and `find` print what is there, the newest first; a TEXT is a part of what stands\n"
    "there. `show` prints what is known of a message, its headers and its texts; with --raw the\n"
    "message, with --part one of its parts. `release` sends it to the server behind the proxy, as\n"
    "it came, once; --again also one that was cut off or has gone out before. `expire` deletes\n"
    "what is older than N days, or than Quarantine/KeepDays. WORD: antivirus, attachments,\n"
    "content or antispam. TIME: 2026-01-31, 2026-01-31T23:59:59 (UTC), or how long ago: 30m, 2h,\n"
    "3d. Exit code: 0; 1 nothing was found, or it failed; 2 wrong words.\n"};

struct Options {
    std::string command;
    std::vector<std::string> ids;
    quarantine::Filter filter;
    bool json = false;
    bool raw = false;
    bool again = false;
    std::string part;
    std::string to;
    std::string interface;
    std::optional<int> days;
};

int Wrong(const std::string& what) { return WrongUsage(kUsage, what); }

int Fail(const std::string& what) {
    std::fprintf(stderr, "vtquarantine: %s\n", CleanText(what).c_str());
    return kExitNothing;
}

constexpr option kOptions[] = {{"from", required_argument, nullptr, 'f'},
                               {"to", required_argument, nullptr, 't'},
                               {"subject", required_argument, nullptr, 'S'},
                               {"id", required_argument, nullptr, 'i'},
                               {"section", required_argument, nullptr, 'x'},
                               {"since", required_argument, nullptr, 's'},
                               {"until", required_argument, nullptr, 'u'},
                               {"limit", required_argument, nullptr, 'l'},
                               {"days", required_argument, nullptr, 'd'},
                               {"part", required_argument, nullptr, 'p'},
                               {"interface", required_argument, nullptr, 'n'},
                               {"raw", no_argument, nullptr, 'r'},
                               {"again", no_argument, nullptr, 'a'},
                               {"json", no_argument, nullptr, 'j'},
                               {nullptr, 0, nullptr, 0}};

// What each command takes, as the letters above.
struct Command {
    const char* name;
    const char* options;
    bool ids;
};
constexpr Command kCommands[] = {{"list", "slj", false}, {"find", "ftSixsulj", false},
                                 {"show", "rpj", true},  {"release", "tna", true},
                                 {"delete", "", true},   {"expire", "d", false}};

std::optional<int> NumberOf(const char* text, int least, int most) {
    const std::string_view all(text);
    int number = 0;
    const auto [end, error] = std::from_chars(all.data(), all.data() + all.size(), number);
    if (error != std::errc() || end != all.data() + all.size() || number < least || number > most)
        return std::nullopt;
    return number;
}

bool IsSection(std::string_view word) {
    return word == "antivirus" || word == "attachments" || word == "content" || word == "antispam";
}

// Nothing if the option is taken, else the exit code.
std::optional<int> TakeOption(int which, Options& options) {
    quarantine::Filter& filter = options.filter;
    switch (which) {
        case 'f':
            filter.from = optarg;
            break;
        case 't':
            if (*optarg == '\0') return Wrong("--to is empty");  // not: all of them
            filter.to = options.to = optarg;
            break;
        case 'S':
            filter.subject = optarg;
            break;
        case 'i':
            filter.id = optarg;
            break;
        case 'x':
            filter.section = optarg;
            if (!IsSection(optarg)) return Wrong(std::string("no such section: ") + optarg);
            break;
        case 's':
        case 'u': {
            const auto when = ParseWhen(optarg, platform::UtcMilliseconds());
            if (!when) return Wrong(std::string("no time: ") + optarg);
            (which == 's' ? filter.since : filter.until) = when;
            break;
        }
        case 'l': {
            const std::optional<int> limit = NumberOf(optarg, 1, 1000000000);
            if (!limit) return Wrong(std::string("no number: ") + optarg);
            filter.limit = *limit;
            break;
        }
        case 'd':
            options.days = NumberOf(optarg, 0, kMostDays);
            if (!options.days) return Wrong(std::string("no number of days: ") + optarg);
            break;
        case 'p':
            options.part = optarg;
            break;
        case 'n':
            options.interface = optarg;
            break;
        case 'r':
            options.raw = true;
            break;
        case 'a':
            options.again = true;
            break;
        default:
            options.json = true;
    }
    return std::nullopt;
}

// Nothing if the program goes on, else its exit code.
std::optional<int> ParseArguments(int argc, char** argv, Options& options) {
    options.command = argc > 1 ? argv[1] : "";
    const Command* command = nullptr;
    for (const Command& each : kCommands) {
        if (options.command == each.name) command = &each;
    }
    if (command == nullptr)
        return Wrong("no such command: " + (argc > 1 ? options.command : "(nothing)"));
    const std::string_view known(command->options);
    opterr = 0;
    optind = 2;
    for (;;) {
        const std::string word = optind < argc ? argv[optind] : "";
        const int found = getopt_long(argc, argv, "", kOptions, nullptr);
        if (found == -1) break;
        if (found == '?' || known.find(static_cast<char>(found)) == std::string_view::npos)
            return Wrong(options.command +
                         " takes no such option, or its value is missing: " + word);
        if (const std::optional<int> code = TakeOption(found, options)) return code;
    }
    for (; optind < argc; ++optind) options.ids.emplace_back(argv[optind]);
    if (!command->ids && !options.ids.empty()) return Wrong("unexpected: " + options.ids.front());
    if (command->ids && options.ids.empty()) return Wrong("which message? An ID is missing");
    if (options.command == "show" && options.ids.size() > 1)
        return Wrong("one message at a time, not: " + options.ids[1]);
    if (options.raw + !options.part.empty() + options.json > 1)
        return Wrong("--raw, --part and --json go each by itself");
    return std::nullopt;
}

// Bytes as they are to a file or a program, and nothing that steers it to a terminal.
bool Print(const std::string& bytes, bool exact) {
    const std::string text = exact && platform::OutputIsTerminal() ? CleanLines(bytes) : bytes;
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
}

int Finish(bool printed) {
    return std::fflush(stdout) == 0 && printed ? kExitFine : Fail("can't write");
}

int List(quarantine::Quarantine& store, const Options& options) {
    std::string complaint;
    const auto found = store.List(options.filter, complaint);
    if (!found) return Fail(complaint);
    if (found->empty()) {
        if (platform::OutputIsTerminal()) std::fputs("vtquarantine: nothing found\n", stderr);
        return kExitNothing;
    }
    std::string text;
    if (options.json) {
        for (const quarantine::KeptMessage& each : *found) text += EntryAsJson(each) + "\n";
    } else {
        text = EntriesAsTable(*found);
    }
    return Finish(Print(text, false));
}

int PrintRaw(const platform::File& file) {
    std::vector<char> block(65536);
    for (long long at = 0;;) {
        const long long count = file.ReadAt(at, block.data(), block.size());
        if (count < 0) return Fail("can't read the message");
        if (count == 0) return Finish(true);
        if (!Print({block.data(), static_cast<std::size_t>(count)}, true)) return Finish(false);
        at += count;
    }
}

int Show(quarantine::Quarantine& store, const Options& options) {
    std::string complaint;
    const auto message = store.Find(options.ids.front(), complaint);
    if (!message) return Fail(complaint);
    if (options.json) return Finish(Print(EntryAsJson(*message) + "\n", false));
    const platform::File file = store.Open(message->id);
    if (!file) return Fail("can't read the message " + message->id);
    if (options.raw) return PrintRaw(file);
    if (!options.part.empty()) {
        std::string bytes;
        if (!PartOf(file, options.part, bytes))
            return Fail("the message has no part " + options.part + " with a body of its own");
        return Finish(Print(bytes, true));
    }
    return Finish(Print(EntryAsText(*message) + "\n" + MessageAsText(file), false));
}

int ReleaseAll(quarantine::Quarantine& store, const Options& options, const Actor& actor) {
    std::string said;
    const std::optional<Destination> destination = DestinationOf(options.interface, said);
    if (!destination) return Fail(said);
    int code = kExitFine;
    for (const std::string& id : options.ids) {
        const Released released =
            Release(store, id, options.to, options.again, *destination, actor, said);
        if (released == Released::kOnce) said += "; --again sends it all the same";
        if (released == Released::kYes) {
            std::printf("%s: released, the server said: %s\n", CleanText(id).c_str(), said.c_str());
        } else {
            code = Fail(std::string(id).append(": not released: ").append(said));
        }
        std::fflush(stdout);
    }
    return code;
}

int DeleteAll(quarantine::Quarantine& store, const Options& options, const Actor& actor) {
    int code = kExitFine;
    for (const std::string& id : options.ids) {
        std::string complaint;
        if (!Delete(store, id, actor, complaint)) code = Fail(complaint);
    }
    return code;
}

int Expire(quarantine::Quarantine& store, const Options& options) {
    const int days = options.days.value_or(
        trelis::ReadInt(trelis::Key(trelis::kMailDaemonKey, "Quarantine/KeepDays")));
    if (!options.days && days == 0) return Fail("Quarantine/KeepDays keeps all of them; --days N");
    std::string complaint;
    const std::optional<int> count = store.Expire(days, complaint);
    if (!count) return Fail(complaint);
    std::printf("%d deleted\n", *count);
    return kExitFine;
}

// What leaves a line in the log. One that nobody takes is given up at once, or after two seconds
// where vtlogd hangs.
int RunLogged(quarantine::Quarantine& store, const Options& options, const std::string& person) {
    const Actor actor{person, kUsage.program};
    LogClientInit("Vantrel Quarantine", kLocalStore);
    const int code = options.command == "release" ? ReleaseAll(store, options, actor)
                                                  : DeleteAll(store, options, actor);
    LogClientUninit();
    return code;
}

int Run(const Options& options, const std::string& person) {
    quarantine::Quarantine store;
    if (options.command == "show") return Show(store, options);
    if (options.command == "release" || options.command == "delete")
        return RunLogged(store, options, person);
    if (options.command == "expire") return Expire(store, options);
    return List(store, options);
}

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerHelp(kUsage, argc, argv)) return *code;
    Options options;
    if (const std::optional<int> code = ParseArguments(argc, argv, options)) return *code;
    const std::string& person = platform::PersonName();
    platform::HoldSignals();
    platform::ReleaseSignals();
    if (const std::string why = platform::WhyNoHome(); !why.empty()) return Fail(why);
    // It changes nothing there, and a full disk is a reason to delete.
    if (trelis::InitToRead() != 0) return Fail(trelis::WhyNotOpen());
    const int code = Run(options, person);
    TrelisUninit();
    return code;
}
