#include "daemons/maild/antispam/antispam.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "daemons/maild/antispam/findings.h"
#include "daemons/maild/antispam/rspamd.h"
#include "daemons/maild/antispam/sending.h"
#include "daemons/maild/antispam/spamd.h"
#include "daemons/maild/engine/connection.h"
#include "daemons/maild/log.h"
#include "metrics/count.h"
#include "platform/file.h"
#include "text/mailbox.h"

namespace maild {

namespace {

using Clock = Connection::Clock;

constexpr std::string_view kSpamd = "spamd:";

// Whether an opinion can still change anything.
bool IsOpen(const std::vector<Finding>& findings) {
    const Decision decision = Decide(findings);
    if (Delivers(decision.action)) return true;
    return (decision.action == Action::kQuarantine || decision.action == Action::kRedirect) &&
           decision.by->section != Section::kAntivirus;
}

bool IsNumber(const std::string& peer) {
    std::array<unsigned char, sizeof(in6_addr)> room;
    return inet_pton(AF_INET, peer.c_str(), room.data()) == 1 ||
           inet_pton(AF_INET6, peer.c_str(), room.data()) == 1;
}

}  // namespace

std::optional<double> ScoreOf(double value) {
    if (std::isnan(value)) return {};
    return std::clamp(value, -kLargestScore, kLargestScore);
}

bool IsSymbol(std::string_view text) {
    constexpr std::size_t kLongest = 100;
    return !text.empty() && text.size() <= kLongest &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-' || c == '.';
           });
}

void Antispam::Look(const SpamSettings& settings, const SpamSubject& subject,
                    std::vector<Finding>& findings) {
    if (settings.address.empty() || !IsOpen(findings)) return;
    const SpamOpinion opinion = Ask(settings, subject);
    Tell(settings, opinion);
    findings.push_back(SpamFinding(settings, opinion));
}

SpamOpinion Antispam::Ask(const SpamSettings& settings, const SpamSubject& subject) {
    std::string_view text = settings.address;
    const bool spamd = text.starts_with(kSpamd);
    if (spamd) text.remove_prefix(kSpamd.size());
    const std::optional<ServiceAddress> address = ServiceAddress::Parse(text);
    if (!address) return SpamOpinion::None("this is no address");
    const platform::File file(
        open(subject.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!file || fstat(file.Descriptor(), &info) != 0 || !S_ISREG(info.st_mode))
        return SpamOpinion::None("can't read the message");
    SpamQuestion question;
    question.file = file.Descriptor();
    question.dots = subject.transfer == Transfer::kChunks ? Dots::kPlain : Dots::kStuffed;
    question.size = info.st_size;
    question.bytes = CountBytes(question.file, question.dots, question.size);
    if (question.bytes < 0) return SpamOpinion::None("can't read the message");
    question.id = subject.path.substr(subject.path.rfind('/') + 1);
    if (subject.sender) question.sender = Mailbox(*subject.sender);
    question.recipients = SplitRecipients(subject.recipients);
    if (IsNumber(subject.peer)) question.peer = subject.peer;
    question.helo = subject.helo;
    const Clock::time_point begin = Clock::now();
    if (!patience_.MayAsk(begin)) return SpamOpinion::None("no answer in time");
    const std::chrono::seconds time(settings.seconds);
    const Clock::time_point end = std::min(subject.end, begin + time);
    SpamOpinion opinion = AskAt(*address, spamd, question, end);
    // A message that took long to scan leaves little: that is nobody else's fault.
    const bool late = !opinion.answered && Clock::now() >= end && end - begin >= time / 2;
    if (late)
        patience_.WasLate(Clock::now());
    else
        patience_.WasInTime();
    return opinion;
}

SpamOpinion Antispam::AskAt(const ServiceAddress& address, bool spamd, const SpamQuestion& question,
                            Clock::time_point end) {
    const std::vector<SocketTarget> targets = names_.Targets(address, end);
    if (targets.empty() && address.path.empty()) return SpamOpinion::None("its name is not found");
    Connection connection;
    connection.SetEnd(end);
    if (connection.Open(targets) != ScanOutcome::kClean) return SpamOpinion::None("can't connect");
    return spamd ? AskSpamd(connection, question) : AskRspamd(connection, question);
}

// Once for each change.
void Antispam::Tell(const SpamSettings& settings, const SpamOpinion& opinion) {
    metrics::Set<metrics::Metric::kAntispamUp>(0, opinion.answered ? 1 : 0);
    const char* const then =
        settings.putOffWhenDown ? "; mail is put off" : "; mail passes unjudged";
    const std::string text =
        "antispam at " + settings.address + ": " +
        (opinion.answered ? "answers" : opinion.why + then) +
        (settings.unread.empty() ? std::string()
                                 : "; no number, and so not set: " + settings.unread);
    {
        const std::lock_guard lock(mutex_);
        if (text == told_) return;
        told_ = text;
    }
    const bool good = opinion.answered && settings.unread.empty();
    Log({.kind = good ? kEventInfo : kEventWarning, .text = text});
}

}  // namespace maild
