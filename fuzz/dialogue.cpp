// A whole session: what a client and a server say to it comes from one input, the session's code is
// the real one, and the scan is a fake that remembers what it was shown.
//
// What must hold whatever either side says: each command gets exactly one reply, and the reply to
// it; nothing reaches the server as a command that is neither the client's line nor the proxy's
// own; no message reaches the server that was not scanned and passed, and it is the one that was
// scanned.
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "scanclient/scanclient.h"
#include "session/conversation.h"

namespace {

[[noreturn]] void Fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "invariant broken: %s: %s\n", what, detail.c_str());
    __builtin_trap();
}

// What one input asks both sides to say.
struct Script {
    std::vector<std::string> segments;  // of the client, each arriving by itself
    std::vector<std::string> replies;   // of the server, empty: an ordinary one
    std::vector<std::uint8_t> verdicts;
    std::size_t nextVerdict = 0;
};

constexpr const char* kClientWords[] = {"EHLO me\r\n",
                                        "HELO me\r\n",
                                        "MAIL FROM:<s@example.org>\r\n",
                                        "MAIL FROM:<s@example.org> BODY=BINARYMIME SIZE=9\r\n",
                                        "RCPT TO:<r@example.org>\r\n",
                                        "RCPT TO:<r@elsewhere.example>\r\n",
                                        "DATA\r\n",
                                        "text\r\n.\r\n",
                                        "\r\n.\r\n",
                                        "\n.\n",
                                        "\r.\r",
                                        ".\r\n",
                                        "BDAT 5\r\nhello",
                                        "BDAT 3 LAST\r\nend",
                                        "BDAT 0 LAST\r\n",
                                        "BDAT 999999999 LAST\r\n",
                                        "AUTH LOGIN\r\n",
                                        "dXNlcg==\r\n",
                                        "\r\n",
                                        "RSET\r\n",
                                        "NOOP\r\n",
                                        "QUIT\r\n",
                                        "STARTTLS\r\n",
                                        "XCLIENT ADDR=1\r\n"};
constexpr const char* kCodes[] = {"250", "220", "354", "334", "421",
                                  "451", "550", "221", "235", "500"};
constexpr std::size_t kLong = 3000;

Script ReadScript(std::string_view in) {
    Script script;
    const auto byte = [&in]() -> std::uint8_t {
        if (in.empty()) return 0;
        const auto value = static_cast<std::uint8_t>(in.front());
        in.remove_prefix(1);
        return value;
    };
    const auto client = [&script](const std::string& text, bool join) {
        if (join && !script.segments.empty()) {
            script.segments.back() += text;
        } else {
            script.segments.push_back(text);
        }
    };
    while (!in.empty()) {
        const std::uint8_t op = byte();
        const std::uint8_t value = byte();
        switch (op % 6) {
            case 0:
            case 1:
                client(kClientWords[value % std::size(kClientWords)], op % 6 == 1);
                break;
            case 2: {
                const std::size_t length = std::min<std::size_t>(value, in.size());
                client(std::string(in.substr(0, length)), (op & 0x80) != 0);
                in.remove_prefix(length);
                break;
            }
            case 3:
                client(std::string(value * 64U, 'x') + ((op & 0x80) != 0 ? "\r\n" : ""), true);
                break;
            case 4: {
                // "#" becomes the number of the reply.
                const std::string code = kCodes[value % std::size(kCodes)];
                std::string reply;
                if ((op & 0x80) != 0) reply += code + "-first\r\n";
                if ((op & 0x40) != 0) reply += (value & 1) != 0 ? "\r\n" : "25\r\n";
                if ((value & 0x80) != 0) reply += code + "-" + std::string(kLong, 'y') + "\r\n";
                script.replies.push_back((value & 0x40) != 0 ? "" : reply + code + " r#\r\n");
                break;
            }
            default:
                script.verdicts.push_back(value);
        }
    }
    return script;
}

// A server that takes the protocol by its letter.
class Server {
  public:
    Server(int socket, const Script& script) : socket_(socket), script_(script) {
        thread_ = std::thread([this] { Serve(); });
    }
    void Join() { thread_.join(); }

    std::vector<std::string> commands;  // by the number of their replies
    std::vector<std::string> messages;

  private:
    void Serve() {
        Reply("", "220");
        for (std::string line; ReadLine(line);) {
            const std::string verb = line.substr(0, 4);
            if (answer_) {
                if (!Reply(line, "235")) break;
            } else if (strncasecmp(verb.c_str(), "DATA", 4) == 0) {
                if (!Reply(line, "354")) break;
                if (last_ == "354" && (!ReadMessage() || !Reply(".", "250"))) break;
            } else if (strncasecmp(verb.c_str(), "BDAT", 4) == 0) {
                if (!ReadChunk(line) || !Reply(line, "250")) break;
            } else {
                const bool auth = strncasecmp(verb.c_str(), "AUTH", 4) == 0;
                const bool ehlo = strncasecmp(verb.c_str(), "EHLO", 4) == 0;
                const bool quit = strncasecmp(verb.c_str(), "QUIT", 4) == 0;
                if (!Reply(line, auth ? "334" : quit ? "221" : "250", ehlo)) break;
            }
        }
        shutdown(socket_, SHUT_RDWR);
    }
    bool Fill() {
        char block[4096];
        const ssize_t count = recv(socket_, block, sizeof block, 0);
        if (count > 0) in_.append(block, static_cast<std::size_t>(count));
        return count > 0;
    }
    bool ReadLine(std::string& line) {
        for (std::size_t end; (end = in_.find('\n')) == std::string::npos;) {
            if (!Fill()) {
                if (!in_.empty()) Fail("half a command at the server", in_);
                return false;
            }
        }
        const std::size_t end = in_.find('\n') + 1;
        line = in_.substr(0, end);
        in_.erase(0, end);
        return true;
    }
    bool ReadMessage() {
        for (std::size_t end; (end = ("\r\n" + in_).find("\r\n.\r\n")) == std::string::npos;) {
            if (!Fill()) return false;
        }
        const std::size_t end = ("\r\n" + in_).find("\r\n.\r\n");
        messages.push_back(in_.substr(0, end));
        in_.erase(0, end + 3);
        return true;
    }
    bool ReadChunk(const std::string& line) {
        const std::size_t size = std::strtoul(line.c_str() + 4, nullptr, 10);
        while (in_.size() < size) {
            if (!Fill()) return false;
        }
        chunks_ += in_.substr(0, size);
        in_.erase(0, size);
        if (line.find("last") == std::string::npos) return true;
        messages.push_back(chunks_);
        chunks_.clear();
        return true;
    }
    // False after a 421, with which a server closes.
    bool Reply(const std::string& command, const char* code, bool ehlo = false) {
        const std::size_t number = commands.size();
        commands.push_back(command);
        std::string text = number < script_.replies.size() ? script_.replies[number] : "";
        if (text.empty()) {
            if (ehlo) text = "250-real\r\n250-CHUNKING\r\n250-PIPELINING\r\n";
            text += std::string(code) + " r#\r\n";
        }
        text.replace(text.rfind('#'), 1, std::to_string(number));
        last_ = text.substr(text.rfind('\n', text.size() - 2) + 1, 3);
        answer_ = last_ == "334";
        if (last_[0] == '4' || last_[0] == '5') chunks_.clear();
        send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
        return last_ != "421";
    }

    const int socket_;
    const Script& script_;
    std::thread thread_;
    std::string in_;
    std::string chunks_;
    std::string last_;
    bool answer_ = false;
};

struct Asked {
    std::string line;
    std::vector<std::string> replies;
};

// The client's side: gives each segment only when the session wants a command, or the text behind
// one, and notes what it answers to each.
class FuzzClient final : public CommandSource {
  public:
    FuzzClient(Script& script, Stream& stream, int socket)
        : script_(script), stream_(stream), socket_(socket) {}

    Stream::Line ReadCommand(std::string_view& line, std::size_t limit) override {
        // Replies may wait for others to go out with; here each is put down to its command.
        stream_.Flush();
        Collect();
        if (!stream_.HasReadAhead())
            Push([](const std::string& text) { return text.ends_with('\n'); });
        const Stream::Line outcome = stream_.ReadLine(line, limit);
        if (outcome == Stream::Line::kFailed) return outcome;
        asked.push_back({std::string(line), {}});
        PushBehind(asked.back().line);
        return outcome;
    }
    // The interface has no certificate.
    bool Handshake(const TlsContext&) override { return false; }
    // Takes what the session has said since the last time.
    void Collect() {
        char block[65536];
        for (ssize_t count; (count = recv(socket_, block, sizeof block, MSG_DONTWAIT)) > 0;)
            in_.append(block, static_cast<std::size_t>(count));
        std::string reply;
        for (std::size_t end; (end = in_.find('\n')) != std::string::npos; in_.erase(0, end + 1)) {
            const std::string line = in_.substr(0, end + 1);
            reply += line;
            if (line.size() > 3 && line[3] == '-') continue;
            asked.back().replies.push_back(reply);
            reply.clear();
        }
    }

    std::vector<Asked> asked{{"", {}}};  // the first: the greeting

  private:
    // What a client sends behind these is no command; it comes by itself, and whole, so that
    // nobody waits for the rest.
    void PushBehind(const std::string& line) {
        const std::string verb = line.substr(0, 4);
        if (strncasecmp(verb.c_str(), "DATA", 4) == 0) {
            Push([](const std::string& text) {
                return text.ends_with("\r\n.\r\n") || text.ends_with("\n.\n") || text == ".\r\n" ||
                       text == ".\n";
            });
        } else if (strncasecmp(verb.c_str(), "BDAT", 4) == 0) {
            const std::size_t size = std::strtoul(line.c_str() + 4, nullptr, 10);
            Push([size](const std::string& text) {
                return text.size() >= size && (text.empty() || text.ends_with('\n'));
            });
        }
    }
    // Sends segments until what was sent is enough, or there is no more.
    template <typename Enough>
    void Push(Enough enough) {
        std::string text;
        while (!enough(text)) {
            if (next_ == script_.segments.size()) {
                Send(text);
                shutdown(socket_, SHUT_WR);
                return;
            }
            text += script_.segments[next_++];
        }
        Send(text);
    }
    // More than the socket takes at once is cut, and nothing comes behind it: the session would
    // wait for a rest that nobody sends.
    void Send(const std::string& text) {
        if (text.empty()) return;
        const ssize_t sent = send(socket_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == static_cast<ssize_t>(text.size())) return;
        shutdown(socket_, SHUT_WR);
        next_ = script_.segments.size();
    }

    Script& script_;
    Stream& stream_;
    const int socket_;
    std::size_t next_ = 0;
    std::string in_;
};

Script* g_script = nullptr;
std::multiset<std::string> g_passed;  // what the scan let through

bool EqualsOwnCommand(const std::string& line) {
    for (const char* own :
         {"NOOP\r\n", "RSET\r\n", "DATA\r\n", "*\r\n", "RCPT TO: x@redirect.example\r\n"}) {
        if (line == own) return true;
    }
    return line.starts_with("bdat ");
}

void Check(const FuzzClient& client, const Server& server) {
    std::set<std::string> lines;
    for (const Asked& each : client.asked) lines.insert(each.line);
    for (std::size_t i = 1; i < server.commands.size(); ++i) {
        const std::string& command = server.commands[i];
        if (command != "." && !EqualsOwnCommand(command) && !lines.contains(command))
            Fail("a command that nobody gave", command);
    }
    for (std::size_t i = 0; i < client.asked.size(); ++i) {
        const Asked& each = client.asked[i];
        const bool blank = each.line == "\r\n" || each.line == "\n";
        const bool message = !each.replies.empty() && each.replies[0].starts_with("354 Enter");
        const std::size_t want = message ? 2 : 1;
        const bool last = i + 1 == client.asked.size();
        const bool answered = each.replies.size() == want || (blank && each.replies.empty());
        if (!answered && !(last && each.replies.size() <= want))
            Fail("replies to one command", each.line + " " + std::to_string(each.replies.size()));
        for (const std::string& reply : each.replies) {
            const std::size_t at = reply.rfind(" r");
            if (at == std::string::npos || reply.size() < at + 4) continue;
            const std::size_t number = std::strtoul(reply.c_str() + at + 2, nullptr, 10);
            if (reply.find_first_not_of("0123456789\r\n", at + 2) != std::string::npos) continue;
            if (number >= server.commands.size()) Fail("a reply from nowhere", reply);
            const std::string& command = server.commands[number];
            const bool own = command == "." || EqualsOwnCommand(command);
            const bool forMessage = message || strncasecmp(each.line.c_str(), "BDAT", 4) == 0;
            if (command != each.line && !(own && (forMessage || command == "*\r\n")) && !forMessage)
                Fail("a reply to another command", each.line + " got that to " + command);
        }
    }
    for (const std::string& message : server.messages) {
        // The proxy's end of data brings a line end with it. An empty chunk asks for CHUNKING.
        const bool asData =
            message.ends_with("\r\n") && g_passed.contains(message.substr(0, message.size() - 2));
        if (!asData && !message.empty() && !g_passed.contains(message))
            Fail("a message that was not scanned", message);
    }
}

void Run(Script& script) {
    int toClient[2];
    int toServer[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, toClient) != 0) return;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, toServer) != 0) return;
    SessionSettings settings;
    settings.greetingName = "proxy.example";
    settings.noopInterval = 3600;
    settings.connectionTimeout = 2;
    settings.silence = std::chrono::milliseconds(0);
    settings.maxMessageSize = 20000;
    settings.mailDomains = {"example.org"};
    Server server(toServer[1], script);
    {
        Stream client;
        ServerLink link(settings);
        Peers peers{settings, client, link};
        SpoolFile spool;
        client.Attach(CSocket(toClient[0]));
        client.SetLimit(settings.connectionTimeout);
        link.Attach(CSocket(toServer[0]));
        spool.Name(toClient[0]);
        FuzzClient source(script, client, toClient[1]);
        Conversation(peers, spool).Run(source);
        shutdown(toServer[0], SHUT_RDWR);
        shutdown(toClient[0], SHUT_RDWR);
        server.Join();
        source.Collect();
        Check(source, server);
    }
    for (const int each : {toClient[0], toClient[1], toServer[0], toServer[1]}) close(each);
}

}  // namespace

// The scan: what it is shown is remembered, its verdict is the script's.
int MailScan(MailScanRecord* record) {
    std::ifstream file(record->path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    const std::uint8_t verdict = g_script->nextVerdict < g_script->verdicts.size()
                                     ? g_script->verdicts[g_script->nextVerdict++]
                                     : 0;
    constexpr std::int32_t kMasks[] = {1, 4, 2, 2, 1};
    const std::size_t which = verdict % 6;
    if (which == 5) return -1;
    record->actionMask = kMasks[which];
    const bool redirected = which >= 3;
    if (redirected) {
        record->verdict = static_cast<MailScanVerdict*>(calloc(1, sizeof *record->verdict));
        record->verdict->antivirus.actionMask = 1;
        record->verdict->antivirus.recipients = strdup("x@redirect.example");
    }
    if (which == 0 || redirected) g_passed.insert(content);
    return 0;
}
void MailScanFree(MailScanRecord* record) {
    if (record->verdict != nullptr) free(record->verdict->antivirus.recipients);
    free(record->verdict);
    record->verdict = nullptr;
}
int MailScanAddRecipient(MailScanRecord*, const char*) { return 0; }
int MailScanSetObjectActions(MailScanRecord*, std::uint32_t, const char*) { return 0; }
int MailScanSetMessageActions(MailScanRecord*, std::uint32_t, const char*) { return 0; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // In memory: the spool's disk is not what is looked at.
    char home[] = "/dev/shm/vantrel-fuzz.XXXXXX";
    if (mkdtemp(home) != nullptr) setenv("VANTREL_HOME", home, 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 2000) return 0;
    Script script = ReadScript({reinterpret_cast<const char*>(data), size});
    g_script = &script;
    g_passed.clear();
    Run(script);
    return 0;
}
