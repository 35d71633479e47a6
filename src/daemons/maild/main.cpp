#include <cstring>
#include <span>

#include "daemons/maild/maild.h"
#include "daemons/maild/shell.h"
#include "ntservice/words.h"
#include "platform/memory.h"

namespace {

constexpr ServiceWords kWords{
    "vtmaild",
    "Scans messages for vtsmtpproxy, with clamd.\n"
    "Settings: `vtregistry show maild`; manual: vtmaild(8)\n",
    "  test FILE...          scan files, and say what would become of them\n"
    "  status [--json]       the engines, and what is known of them\n"
    "  debug --null          call every message clean, to measure\n"};

}  // namespace

int main(int argc, char** argv) {
    platform::TuneAllocator();  // an arena for each of up to 200 scans keeps half a megabyte each
    if (argc > 1 && std::strcmp(argv[1], "test") == 0)
        return TestFiles(std::span(argv, static_cast<std::size_t>(argc)).subspan(2));
    if (argc > 1 && std::strcmp(argv[1], "status") == 0)
        return ShowStatus(std::span(argv, static_cast<std::size_t>(argc)).subspan(2));
    if (const std::optional<int> code = AnswerServiceWords(kWords, argc, argv)) return *code;
    MailDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
