// The scan daemon and its engine, by two messages: a clean one, and one with the standard test
// pattern. The daemon logs them as any others; their sender says whose they are.
#include <chrono>
#include <string>
#include <string_view>

#include "host/check/parts.h"
#include "platform/file.h"
#include "platform/home.h"
#include "platform/local_socket.h"
#include "scanclient/engines.h"
#include "scanclient/scanclient.h"

namespace {

constexpr char kSender[] = "vtsmtpproxy-check@localhost";
constexpr std::string_view kCleanText = "Subject: check\r\n\r\nA clean text.\r\n";
// In two pieces, so that neither this file nor the program is taken for the pattern.
constexpr std::string_view kPatternStart = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-";
constexpr std::string_view kPatternEnd = "ANTIVIRUS-TEST-FILE!$H+H*";
constexpr std::string_view kPatternHeader = "Subject: check\r\n\r\n";

constexpr std::int32_t kAgentId = 4;
constexpr std::int32_t kAllSections = 15;
constexpr std::int32_t kAsItIs = 2;  // no dots are doubled in it
constexpr std::int32_t kForward = 1;
constexpr std::int32_t kRefusals = 2 | 4 | 8;
constexpr std::chrono::seconds kPatience{15};

constexpr trelis::Key kSocket{trelis::kMailDaemonKey, "ClamdSocket"};
constexpr trelis::Key kPassDown{trelis::kMailDaemonKey, "PassWhenDown"};

using Clock = std::chrono::steady_clock;

// A message in the instance's tmp, for as long as this lives.
class Sample {
  public:
    explicit Sample(const std::string& text)
        : path_(platform::HomePath(kSampleFiles) +
                std::to_string(Clock::now().time_since_epoch().count())) {
        platform::File file = platform::File::CreateExclusive(path_.c_str(), -1);
        made_ = static_cast<bool>(file);
        whole_ = made_ && file.Write(text.data(), text.size()) && file.Close();
    }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;
    ~Sample() {
        if (made_) DeleteFileA(path_.c_str());
    }
    // Empty if it can't be had.
    std::string Path() const { return whole_ ? path_ : std::string(); }

  private:
    const std::string path_;
    bool made_ = false;
    bool whole_ = false;
};

int PatienceOver(void* end) { return Clock::now() < *static_cast<Clock::time_point*>(end) ? 0 : 1; }

enum class Answer { kClean, kInfected, kNone };

Answer Ask(const std::string& path) {
    Clock::time_point end = Clock::now() + kPatience;
    MailScanRecord record{};
    record.path = path.c_str();
    record.sender = kSender;
    record.peerAddress = "127.0.0.1";
    record.agentId = kAgentId;
    record.timeoutSeconds = 1;
    record.cancelCallback = PatienceOver;
    record.cancelContext = &end;
    record.scanSections = kAllSections;
    record.transferForm = kAsItIs;
    const bool answered = MailScan(&record) == 0;
    const std::int32_t mask = record.actionMask;
    MailScanFree(&record);
    if (!answered) return Answer::kNone;
    return (mask & kForward) != 0 && (mask & kRefusals) == 0 ? Answer::kClean : Answer::kInfected;
}

bool DaemonListens() {
    const SOCKET socket = SocketConnectLocal("pipes", "vtmaild");
    if (socket == INVALID_SOCKET) return false;
    closesocket(socket);
    return true;
}

void AskForBoth(const Sample& clean, const Sample& infected, Findings& findings) {
    const std::string root = trelis::kMailDaemonKey;
    const bool engines = CheckEngines(findings);
    const Answer ofClean = Ask(clean.Path());
    const bool filter = CheckSpamFilter(findings);
    if (ofClean == Answer::kNone) {
        if (!engines || !filter) return;  // why, has been told
        findings.Error(kSocket.Path(), "the scan daemon can't scan, so all mail is put off",
                       "start clamd (systemctl start clamav-daemon), or name its socket; the log "
                       "says what is missing");
        return;
    }
    if (ofClean == Answer::kInfected)
        findings.Error(root, "a clean text is called infected",
                       "see clamd's signatures and its settings");
    const Answer ofInfected = Ask(infected.Path());
    if (ofInfected == Answer::kInfected) return;
    if (ofInfected == Answer::kNone)
        findings.Error(kSocket.Path(), "there is no answer to the standard test pattern",
                       "see the log for what the engine lacks");
    else if (trelis::ReadFlag(kPassDown))
        findings.Error(kPassDown.Path(),
                       "the standard test pattern is called clean: the engine is down, or has no "
                       "signatures, and this lets all mail through",
                       "start clamd (systemctl start clamav-daemon), and set this to N");
    else
        findings.Error(root, "the standard test pattern is called clean",
                       "give clamd its signatures: run freshclam");
}

}  // namespace

void CheckScanning(Findings& findings) {
    const std::string root = trelis::kMailDaemonKey;
    if (!DaemonListens()) {
        findings.Error(root, "the scan daemon doesn't run, so all mail is put off",
                       "start it: systemctl start vtmaild, or vtmaild start");
        return;
    }
    const Sample clean{std::string(kCleanText)};
    const Sample infected(std::string(kPatternHeader).append(kPatternStart).append(kPatternEnd) +
                          "\r\n");
    if (clean.Path().empty() || infected.Path().empty()) {
        findings.Error(platform::HomePath("tmp"), "no message can be written",
                       "make room on its file system, and see its permissions");
        return;
    }
    if (MailScanInit() != 0) {
        findings.Error(root, "no connection to the scan daemon", "start it anew");
        return;
    }
    AskForBoth(clean, infected, findings);
    MailScanUninit();
}
