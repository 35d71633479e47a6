#include "session/dialogue/unserved.h"

#include <algorithm>
#include <string>

#include "text/ascii.h"

namespace {

constexpr std::size_t kLongestCommand = 2048;
constexpr int kMostCommands = 100;
constexpr std::string_view kOk = "250 2.0.0 OK\r\n";

}  // namespace

void AnswerWithoutServer(Peers& peers, CommandSource& commands, std::string_view refusal) {
    const std::string& name = peers.settings.greetingName;
    std::string answer = "220 " + name + " ESMTP Vantrel Proxy\r\n";
    for (int count = 0; peers.SendReply(answer) && count < kMostCommands; ++count) {
        std::string_view line;
        if (commands.ReadCommand(line, kLongestCommand) == Stream::Line::kFailed) return;
        const std::string_view verb =
            line.substr(0, std::min(line.find_first_of(" \t\r\n"), line.size()));
        if (EqualIgnoringCase(verb, "QUIT")) {
            peers.SendReply("221 " + name + " ESMTP Vantrel Proxy closing connection\r\n");
            return;
        }
        if (EqualIgnoringCase(verb, "EHLO") || EqualIgnoringCase(verb, "HELO")) {
            answer = "250 " + name + "\r\n";
            const std::string_view rest = line.substr(verb.size());
            const std::size_t begin = std::min(rest.find_first_not_of(" \t\r\n"), rest.size());
            peers.journal.session.helo =
                rest.substr(begin, rest.find_first_of(" \t\r\n", begin) - begin);
        } else if (EqualIgnoringCase(verb, "NOOP") || EqualIgnoringCase(verb, "RSET")) {
            answer = kOk;
        } else {
            answer = peers.Own(refusal);
        }
    }
    peers.client.EndSending();
}
