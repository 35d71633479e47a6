#include "daemons/maild/shell.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "daemons/maild/sections.h"
#include "text/printable.h"
#include "trelis/trelis.h"

namespace {

constexpr char kUsage[] =
    "usage: vtmaild test [--chunks] FILE...\n"
    "Scans messages by the instance's settings. --chunks: as they are, not as DATA sends them.\n"
    "Exit 0: all pass; 1: something was found; 3: a file can't be read, or not be scanned.\n";

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

Exit TestFile(Engine& engine, const Settings& settings, const char* path, Transfer transfer) {
    const AllFindings verdict = JudgeBySections(engine, settings, path, transfer, {});
    Print(path, verdict.findings);
    switch (verdict.judgement.scan.outcome) {
        case ScanOutcome::kClean:
        case ScanOutcome::kEncrypted:
        case ScanOutcome::kInfected:
        case ScanOutcome::kTooBig:
            return verdict.findings.empty() ? kPasses : kFound;
        default:
            return kCant;
    }
}

}  // namespace

int TestFiles(std::span<char* const> words) {
    Transfer transfer = Transfer::kData;
    if (!words.empty() && std::strcmp(words[0], "--chunks") == 0) {
        transfer = Transfer::kChunks;
        words = words.subspan(1);
    }
    const bool help = !words.empty() && std::strcmp(words[0], "--help") == 0;
    if (help || words.empty() || words[0][0] == '-') {
        std::fputs(kUsage, help ? stdout : stderr);
        return help ? kPasses : kWrongWords;
    }
    if (TrelisInit2() != 0) {
        std::fputs("vtmaild: can't open the configuration\n", stderr);
        return kCant;
    }
    int code = kPasses;
    {
        const std::shared_ptr<const Settings> settings = LoadSettings();
        Engine engine;
        engine.Start(settings);
        for (const char* path : words)
            code = std::max<int>(code, TestFile(engine, *settings, path, transfer));
    }
    TrelisUninit();
    return code;
}
