#include "host/smtp.h"
#include "ntservice/words.h"
#include "platform/console.h"
#include "platform/memory.h"

namespace {

constexpr ServiceWords kWords{"vtsmtpproxy",
                              "Mail security proxy in front of a mail server.\n"
                              "Settings: `vtregistry show interface`; manual: vtsmtpproxy(8)\n"};

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    platform::HoldSignals();
    platform::TuneAllocator();
    platform::RaiseDescriptorLimit();
    LoadCrashHandler("VTSTATD");
    CSMTP service;
    const int code = service.ProcessCommandLine(argc, argv);
    // Threads of sessions that could not be ended still use what destructors would take away.
    if (service.SessionsLeft()) platform::ExitNow(code);
    return code;
}
