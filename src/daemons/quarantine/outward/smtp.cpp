#include "daemons/quarantine/outward/smtp.h"

#include <algorithm>
#include <memory>

#include "net/stream.h"
#include "text/ascii.h"
#include "text/mailbox.h"
#include "text/printable.h"
#include "tls/handshake.h"
#include "tls/trust.h"

namespace {

constexpr std::uint32_t kSeconds = 60;
constexpr std::uint32_t kSecondsForMessage = 600;  // a server may scan it first
constexpr std::chrono::seconds kConnectLimit{30};
constexpr std::size_t kLongestReply = 2048;
constexpr int kMostReplyLines = 200;
constexpr std::size_t kBlock = 65536;

class NobodyElse final : public ConnectWatch {
  public:
    bool Trying(SOCKET) override { return true; }
    void Failed() override {}
    bool Wanted() override { return true; }
};

struct Reply {
    std::string code;
    std::string text;  // its last line
    std::vector<std::string> lines;
    bool Is(char kind) const { return !code.empty() && code[0] == kind; }
    bool Offers(std::string_view word) const {
        return std::any_of(lines.begin(), lines.end(), [word](const std::string& line) {
            return line.size() >= word.size() &&
                   EqualIgnoringCase(std::string_view(line).substr(0, word.size()), word);
        });
    }
};

// One connection, closed when it goes.
class Dialogue {
  public:
    Dialogue(const Destination& destination, std::string& said)
        : destination_(destination), said_(said) {}
    Dialogue(const Dialogue&) = delete;
    Dialogue& operator=(const Dialogue&) = delete;
    ~Dialogue() {
        stream_.Detach();
        if (destination_.watch != nullptr) destination_.watch->Failed();
        if (!socket_.Empty()) socket_.Close();
    }

    Sent Send(const Letter& letter) {
        if (!Open() || !Envelope(letter)) return Sent::kRefused;
        if (!Body(letter)) return Sent::kRefused;  // without its end it is no message
        if (!stream_.Send(endsLine_ ? ".\r\n" : "\r\n.\r\n")) {
            said_ = "the connection broke at the message's end";
            return Sent::kUnknown;
        }
        Reply reply;
        if (!Read(reply, kSecondsForMessage)) return Sent::kUnknown;
        if (reply.Is('4') || reply.Is('5')) return Sent::kRefused;
        if (!reply.Is('2')) return Sent::kUnknown;
        stream_.Send("QUIT\r\n");
        return Sent::kTaken;
    }

  private:
    bool Fail(const std::string& what) {
        said_ = CleanText(what);
        return false;
    }

    // A whole reply. False: none came.
    bool Read(Reply& reply, std::uint32_t seconds = kSeconds) {
        reply = {};
        stream_.SetLimit(seconds);
        for (int i = 0; i < kMostReplyLines; ++i) {
            std::string_view line;
            if (stream_.ReadLine(line, kLongestReply) != Stream::Line::kWhole || line.size() < 4)
                return Fail("no reply from " + server_);
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
                line.remove_suffix(1);
            reply.code = line.substr(0, 3);
            reply.text = CleanText(line);
            reply.lines.emplace_back(line.substr(std::min<std::size_t>(4, line.size())));
            if (line.size() < 4 || line[3] != '-') {
                said_ = reply.text;
                return true;
            }
        }
        return Fail("a reply without an end from " + server_);
    }
    bool Ask(const std::string& command, Reply& reply) {
        stream_.SetLimit(kSeconds);
        if (!stream_.Send(command + "\r\n")) return Fail("the connection to " + server_ + " broke");
        return Read(reply);
    }

    bool Open() {
        NobodyElse nobody;
        ConnectWatch& watch = destination_.watch != nullptr ? *destination_.watch : nobody;
        const ServerConnection connection =
            ConnectToServers(destination_.servers, kConnectLimit, watch, socket_);
        if (socket_.Empty()) return Fail("can't connect: " + connection.reason);
        host_ = connection.server.host;
        server_ = connection.server.Text();
        stream_.Attach(socket_);
        if (destination_.tls == ServerTls::kWrapped && !Handshake()) return false;
        Reply reply;
        if (!Read(reply) || reply.code != "220" || !Greet()) return false;
        const bool startTls =
            destination_.tls != ServerTls::kOff && destination_.tls != ServerTls::kWrapped;
        return !startTls || StartTls();
    }
    bool Greet() {
        if (!Ask("EHLO " + destination_.helo, offers_)) return false;
        Reply reply;
        return offers_.Is('2') || (Ask("HELO " + destination_.helo, reply) && reply.Is('2'));
    }
    bool StartTls() {
        const bool optional = destination_.tls == ServerTls::kTry;
        if (!offers_.Offers("STARTTLS"))
            return optional || Fail(server_ + " offers no STARTTLS, which ServerTLS/Mode wants");
        Reply reply;
        if (!Ask("STARTTLS", reply)) return false;
        if (reply.code != "220") return optional;
        if (stream_.HasReadAhead()) return Fail("text behind STARTTLS from " + server_);
        return Handshake() && Greet();
    }
    bool Handshake() {
        const bool named = !destination_.caFile.empty() || !destination_.certName.empty();
        const bool judge = destination_.tls == ServerTls::kVerify ||
                           (destination_.tls == ServerTls::kWrapped && named);
        std::string complaint;
        const std::shared_ptr<const TlsContext> context =
            judge ? TlsClientContext(destination_.caFile, complaint) : TlsClientContext();
        if (context == nullptr) return Fail("no TLS: " + complaint);
        const std::string& name = destination_.certName.empty() ? host_ : destination_.certName;
        TlsOutcome outcome =
            TlsConnect(socket_, *context, name, judge ? name : "", Deadline(kSeconds));
        if (outcome.transport == nullptr)
            return Fail("no TLS with " + server_ + ": " + outcome.failure);
        stream_.Secure(std::move(outcome.transport));
        return true;
    }

    bool NoAddress(const std::string& text) { return Fail("no command can name " + text); }
    bool Envelope(const Letter& letter) {
        if (MailboxPath(letter.sender).empty()) return NoAddress(letter.sender);
        for (const std::string& each : letter.recipients) {
            if (MailboxPath(each).empty()) return NoAddress(each);
        }
        std::string mail = "MAIL FROM:" + MailboxPath(letter.sender);
        bool unicode = HasHighBytes(letter.sender);
        for (const std::string& each : letter.recipients) unicode = unicode || HasHighBytes(each);
        if (offers_.Offers("8BITMIME")) mail += " BODY=8BITMIME";
        if (unicode && offers_.Offers("SMTPUTF8")) mail += " SMTPUTF8";
        Reply reply;
        if (!Ask(mail, reply) || !reply.Is('2')) return false;
        for (const std::string& each : letter.recipients) {
            if (!Ask("RCPT TO:" + MailboxPath(each), reply)) return false;
            if (reply.Is('2')) continue;
            said_ = CleanText(each) + ": " + said_;
            return false;
        }
        return Ask("DATA", reply) && reply.Is('3');
    }
    static bool HasHighBytes(std::string_view text) {
        return std::any_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
    }

    // The message with the dots of the way.
    bool Body(const Letter& letter) {
        std::string out = letter.header + "\r\n";
        const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
        char before = '\n';
        for (long long at = 0;;) {
            const long long count = letter.message->ReadAt(at, block.get(), kBlock);
            if (count < 0) return Fail("can't read the message");
            for (long long i = 0; i < count; ++i) {
                const char c = block[static_cast<std::size_t>(i)];
                // A server may take each of them for the end of a line.
                if (before == '\r' && c != '\n') {
                    out += '\n';
                    before = '\n';
                }
                if (before == '\n' && c == '.') out += '.';
                if (c == '\n' && before != '\r') out += '\r';
                out += c;
                before = c;
            }
            if (!stream_.Send(out)) return Fail("the connection to " + server_ + " broke");
            if (count == 0) break;
            out.clear();
            at += count;
        }
        if (before == '\r' && !stream_.Send("\n"))
            return Fail("the connection to " + server_ + " broke");
        endsLine_ = before == '\n' || before == '\r';
        return true;
    }

    const Destination& destination_;
    std::string& said_;
    std::string host_;
    std::string server_;
    CSocket socket_;
    Stream stream_;
    Reply offers_;
    bool endsLine_ = true;
};

}  // namespace

Sent SendLetter(const Destination& destination, const Letter& letter, std::string& said) {
    return Dialogue(destination, said).Send(letter);
}
