// vtservice NAME: supervises one service. Started by StartServiceA only, with the service's lock
// and the place to report the first start to as descriptors; ends when the service has stopped.
//
// One thread, one poll. The program that runs tells its status over a socket of its own and gets
// the controls there; clients ask over the control socket. A program that ends without having said
// that it stopped has died: the record's failure action starts it again after a delay, and so once
// more where that start comes to nothing. A full disk, or whatever else made it die, may last.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "daemons/supervisor/supervision.h"
#include "platform/home.h"
#include "text/usage.h"

int main(int argc, char** argv) {
    const Usage usage{
        "vtservice",
        "usage: vtservice --help | --version\n"
        "Supervises one service of an instance. It is not for people: `PROGRAM start` "
        "starts it for\nan installed service, `PROGRAM stop` ends it. Manual: "
        "vtservice(8)\n"};
    if (const std::optional<int> code = AnswerHelp(usage, argc, argv)) return *code;
    const auto isOpen = [](int descriptor) { return fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0; };
    if (argc != 2 || !platform::ValidServiceName(argv[1]) || !isOpen(platform::kSupervisorLock) ||
        !isOpen(platform::kSupervisorReport) || platform::Home().empty())
        return WrongUsage(usage, "not started by `PROGRAM start`");
    umask(077);
    if (chdir("/") != 0) return 1;
    const auto record = platform::ReadServiceRecord(argv[1]);
    if (!record) return 1;
    return Supervision(*record, platform::UniqueDescriptor(platform::kSupervisorReport)).Run();
}
