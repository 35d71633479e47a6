#include "host/smtp.h"
#include "platform/console.h"
#include "platform/memory.h"

int main(int argc, char** argv) {
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
