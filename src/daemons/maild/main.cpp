#include "daemons/maild/maild.h"
#include "ntservice/words.h"

namespace {

constexpr ServiceWords kWords{"vtmaild",
                              "Scans messages for vtsmtpproxy, with clamd.\n"
                              "Settings: `vtregistry show maild`; manual: vtmaild(8)\n",
                              "  debug --null          call every message clean, to measure\n"};

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    MailDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
