#include "text/usage.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "text/printable.h"

namespace {

int Written() { return std::fflush(stdout) == 0 ? 0 : 1; }

}  // namespace

const char* ProgramVersion() { return VANTREL_VERSION; }

int PrintUsage(const Usage& usage) {
    std::fputs(usage.text.c_str(), stdout);
    return Written();
}

int PrintVersion(const Usage& usage) {
    std::printf("%s %s\n", usage.program, ProgramVersion());
    return Written();
}

int WrongUsage(const Usage& usage, const std::string& what) {
    std::fprintf(stderr, "%s: %s\n%s", usage.program, CleanText(what).c_str(), usage.text.c_str());
    return kExitUsage;
}

std::optional<int> AnswerHelp(const Usage& usage, int argc, const char* const* argv) {
    for (int i = 1; i < std::min(argc, 3); ++i) {
        const std::string_view word = argv[i];
        if (word == "--help" || word == "-h") return PrintUsage(usage);
        if (word == "--version") return PrintVersion(usage);
    }
    return std::nullopt;
}
