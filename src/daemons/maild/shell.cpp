#include "daemons/maild/shell.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "daemons/maild/antispam/antispam.h"
#include "daemons/maild/sections.h"
#include "platform/file.h"
#include "platform/home.h"
#include "scanclient/engines.h"
#include "text/printable.h"
#include "text/usage.h"
#include "trelis/admin.h"
#include "trelis/trelis.h"

namespace {

constexpr char kTestHelp[] =
    "usage: vtmaild test [--chunks] FILE...\n"
    "Scans messages by the instance's settings. --chunks: as they are, not as DATA sends them.\n"
    "Exit 0: all pass; 1: something was found; 2: wrong words, or a file can't be read; 3: one "
    "can't "
    "be scanned.\n";

constexpr char kStatusHelp[] =
    "usage: vtmaild status [--json]\n"
    "Shows the engines: where each is, its state, the scans that it has in hand, its version.\n"
    "The exit code: 0 if the daemon answers, 1 if not.\n";

enum Exit { kPasses = 0, kFound = 1, kWrongWords = 2, kCant = 3 };

void Print(const char* path, const std::vector<maild::Finding>& findings) {
    std::printf("%s: %s\n", CleanText(path).c_str(), maild::Word(maild::Decide(findings).action));
    for (const maild::Section section : maild::kSections) {
        bool any = false;
        for (const maild::Finding& each : findings) {
            if (each.section != section) continue;
            any = true;
            std::string line =
                std::string(maild::Word(each.action)) + ", " + each.rule + ": " + each.reason;
            if (!each.part.empty()) line += ", part " + each.part;
            std::printf("  %s: %s\n", maild::Word(section), CleanText(line).c_str());
        }
        if (!any) std::printf("  %s: nothing\n", maild::Word(section));
    }
}

// Why the file can't be read, for a person; empty if it can.
std::string WhyUnreadable(const char* path) {
    const platform::File file = platform::File::OpenRead(path);
    if (!file) return std::strerror(errno);
    const auto state = file.State();
    return state && state->plain ? "" : "not a plain file";
}

Exit TestFile(Engines& engines, const Settings& settings, const char* path, Transfer transfer) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(settings.scanSeconds);
    // A link of whoever asks is his own affair.
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path, nullptr), std::free);
    const char* const file = real != nullptr ? real.get() : path;
    if (const std::string why = WhyUnreadable(file); !why.empty()) {
        std::fprintf(stderr, "vtmaild: %s: %s\n", CleanText(path).c_str(), why.c_str());
        return kWrongWords;
    }
    AllFindings verdict = JudgeBySections(engines, settings, file, transfer, {});
    std::vector<maild::Finding>& findings = verdict.findings;
    maild::Antispam().Look(settings.antispam, {file, transfer, {}, "", "", "", end}, findings);
    Print(path, findings);
    // A score alone is nothing that was found.
    const bool any = std::any_of(findings.begin(), findings.end(), [](const maild::Finding& each) {
        return each.section != maild::Section::kAntispam || each.action != maild::Action::kPass;
    });
    switch (verdict.judgement.scan.outcome) {
        case ScanOutcome::kClean:
        case ScanOutcome::kEncrypted:
        case ScanOutcome::kInfected:
        case ScanOutcome::kTooBig:
            return any ? kFound : kPasses;
        default:
            return kCant;
    }
}

void PrintStates(const std::vector<EngineState>& states) {
    for (const EngineState& each : states)
        std::printf("%s at %s: %s, %d in hand%s%s\n", CleanText(each.name).c_str(),
                    CleanText(each.address).c_str(), CleanText(each.state).c_str(),
                    each.outstanding, each.version.empty() ? "" : ", ",
                    CleanText(each.version).c_str());
}

void PrintJson(bool answers, const std::vector<EngineState>& states) {
    std::string text =
        std::string("{\"answers\": ") + (answers ? "true" : "false") + ", \"engines\": [";
    for (const EngineState& each : states)
        text += std::string(&each == &states.front() ? "" : ", ") +
                "{\"name\": " + QuotedText(each.name) +
                ", \"address\": " + QuotedText(each.address) +
                ", \"state\": " + QuotedText(each.state) +
                ", \"version\": " + QuotedText(each.version) +
                ", \"outstanding\": " + std::to_string(each.outstanding) + '}';
    std::printf("%s]}\n", text.c_str());
}

}  // namespace

int ShowStatus(std::span<char* const> words) {
    const Usage usage{"vtmaild status", kStatusHelp};
    if (words.size() == 1 && std::strcmp(words[0], "--help") == 0) return PrintUsage(usage);
    const bool json = words.size() == 1 && std::strcmp(words[0], "--json") == 0;
    if (!words.empty() && !json) return WrongUsage(usage, std::string("unexpected: ") + words[0]);
    std::vector<EngineState> states;
    const std::string why = platform::WhyNoHome();
    const bool answers = why.empty() && AskForEngines(states);
    if (json)
        PrintJson(answers, states);
    else if (answers)
        PrintStates(states);
    else
        std::fprintf(stderr, "vtmaild: %s\n",
                     why.empty() ? "the daemon does not answer: is it started?" : why.c_str());
    return answers && std::fflush(stdout) == 0 ? 0 : 1;
}

int TestFiles(std::span<char* const> words) {
    Transfer transfer = Transfer::kData;
    if (!words.empty() && std::strcmp(words[0], "--chunks") == 0) {
        transfer = Transfer::kChunks;
        words = words.subspan(1);
    }
    const Usage usage{"vtmaild test", kTestHelp};
    if (words.empty()) return WrongUsage(usage, "no file is given");
    if (std::strcmp(words[0], "--help") == 0) return PrintUsage(usage);
    if (words[0][0] == '-') return WrongUsage(usage, std::string("unknown word: ") + words[0]);
    if (TrelisInit2() != 0) {
        std::fprintf(stderr, "vtmaild: %s\n", trelis::WhyNotOpen().c_str());
        return kCant;
    }
    int code = kPasses;
    {
        const std::shared_ptr<const Settings> settings = LoadSettings();
        Engines engines;
        engines.Start(settings);
        for (const char* path : words)
            code = std::max<int>(code, TestFile(engines, *settings, path, transfer));
    }
    TrelisUninit();
    return code;
}
