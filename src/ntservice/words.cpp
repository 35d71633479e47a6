#include "ntservice/words.h"

#include <algorithm>
#include <string>

#include "ntservice/ntservice.h"

namespace {

constexpr char kOptionLines[] =
    "  debug                 run in the foreground until Ctrl-C\n"
    "  register, unregister  write the default configuration in the place of what is there, or\n"
    "                        delete it\n"
    "  install, uninstall    make the program a service of the instance, or take it away\n"
    "  start, stop           start or stop the installed service\n"
    "  --help, --version     print this, or the version\n"
    "Without a word it is a service, and started by a service manager: systemd, or `start`.\n"
    "The instance is the directory VANTREL_HOME; default: /var/lib/vantrel for root,\n"
    "~/.local/state/vantrel for others.\n";

}  // namespace

Usage ServiceUsage(const ServiceWords& words) {
    return {words.program, std::string("usage: ") + words.program + " WORD\n" + words.summary +
                               words.own + kOptionLines};
}

std::optional<int> AnswerServiceWords(const ServiceWords& words, int argc, char** argv) {
    const Usage usage = ServiceUsage(words);
    if (const std::optional<int> code = AnswerHelp(usage, argc, argv)) return code;
    const bool known = argc < 2 || std::any_of(argv + 1, argv + argc, CNTService::IsOption);
    if (!known && !platform::StartedByServiceManager())
        WrongUsage(usage, std::string("unknown word: ") + argv[1]);
    return std::nullopt;
}
