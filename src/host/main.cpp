#include <string>
#include <string_view>
#include <vector>

#include "host/check/check.h"
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
    "  check         look for mistakes in the configuration, and for what it needs\n"};

}  // namespace

int main(int argc, char** argv) {
    // Words of people, which begin no service; they answer --help by themselves.
    const std::string_view word = argc > 1 ? argv[1] : "";
    const bool persons = word == "check" || word == "setup";
    if (!persons) {
        if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    }
    platform::HoldSignals();
    platform::TuneAllocator();
    platform::RaiseDescriptorLimit();
    if (persons) {
        const std::vector<std::string> words(argv + 2, argv + argc);
        return word == "check" ? RunCheck(words) : RunSetup(words);
    }
    LoadCrashHandler("VTSTATD");
    CSMTP service;
    const int code = service.ProcessCommandLine(argc, argv);
    // Threads of sessions that could not be ended still use what destructors would take away.
    if (service.SessionsLeft()) platform::ExitNow(code);
    return code;
}
