#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "host/check/check.h"
#include "host/control/words.h"
#include "host/setup/setup.h"
#include "host/smtp.h"
#include "ntservice/words.h"
#include "platform/console.h"
#include "platform/memory.h"

namespace {

constexpr ServiceWords kWords{
    "vtsmtpproxy",
    "Mail security proxy in front of a mail server.\n"
    "Settings: `vtregistry show interface`; manual: vtsmtpproxy(8)\n",
    "  setup         write the first configuration; without options it asks\n"
    "  check         look for mistakes in the configuration, and for what it needs\n"
    "  status        show which programs run, and the sessions\n"
    "  drain         take no new sessions, and wait for the end of those that run\n"};

}  // namespace

int main(int argc, char** argv) {
    // Words of people, which begin no service; they answer --help by themselves.
    const std::string_view word = argc > 1 ? argv[1] : "";
    constexpr struct {
        std::string_view word;
        int (*run)(const std::vector<std::string>& words);
    } kPersons[] = {{"check", RunCheck},
                    {"setup", RunSetup},
                    {"status", control::RunStatus},
                    {"drain", control::RunDrain}};
    const auto* const person = std::find_if(std::begin(kPersons), std::end(kPersons),
                                            [word](const auto& each) { return each.word == word; });
    const bool persons = person != std::end(kPersons);
    if (!persons) {
        if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    }
    platform::HoldSignals();
    platform::TuneAllocator();
    platform::RaiseDescriptorLimit();
    if (persons) return person->run({argv + 2, argv + argc});
    LoadCrashHandler("VTSTATD");
    CSMTP service;
    const int code = service.ProcessCommandLine(argc, argv);
    // Threads of sessions that could not be ended still use what destructors would take away.
    if (service.SessionsLeft()) platform::ExitNow(code);
    return code;
}
