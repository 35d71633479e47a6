#include "daemons/maild/maild.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "daemons/maild/actions/perform.h"
#include "daemons/maild/log.h"
#include "daemons/maild/reply.h"
#include "daemons/maild/sections.h"
#include "libstats/codes.h"
#include "platform/home.h"
#include "scanclient/engines.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

// The largest message in bytes that is taken where MaxFileSize says nothing; 0: any.
constexpr trelis::Key kUnaskedLimit{trelis::kMailDaemonKey, "RTP/MaxFileSize"};

// A service manager gives a program 20 s to end.
constexpr int kLongestStop = 15;

std::string Text(TagMsgNode* request, std::uint32_t tag) {
    const void* found = nullptr;
    return TagMsgPeekAttr(request, tag, &found) == TAGMSG_OK && found != nullptr
               ? std::string(static_cast<const char*>(found))
               : std::string();
}

Transfer TransferOf(TagMsgNode* request) {
    std::int32_t form = 0;
    TagMsgCopyAttr(request, TagTransferForm, &form, sizeof form);  // absent: unknown
    if (form == static_cast<std::int32_t>(Transfer::kData)) return Transfer::kData;
    return form == static_cast<std::int32_t>(Transfer::kChunks) ? Transfer::kChunks
                                                                : Transfer::kUnknown;
}

const char* StatusText(maild::Action action) {
    switch (action) {
        case maild::Action::kRedirect:
            return "redirected";
        case maild::Action::kDrop:
            return "dropped";
        case maild::Action::kQuarantine:
            return "quarantined";
        case maild::Action::kPutOff:
            return "put off";
        case maild::Action::kPass:
        case maild::Action::kTag:
            return "passed";
        default:
            return "refused";
    }
}

// What goes to the quarantine is told even of rules that say nothing.
void LogDecision(TagMsgNode* request, const std::string& path, const maild::Finding& by,
                 const std::string& keptAs) {
    if (by.log.empty() && keptAs.empty()) return;
    LogLine line{.kind = kEventFileNotScanned, .text = by.log, .path = path};
    if (by.section == maild::Section::kAntispam && by.rule != "WhenDown") line.kind = kEventInfo;
    if (line.text.empty())
        line.text = std::string(maild::Word(by.action)) + ", " + by.rule + ": " + by.reason;
    if (!keptAs.empty()) line.text += ", in the quarantine as " + keptAs;
    if (by.rule == "VirusAction") {
        line.kind = kEventVirus;
        line.sender = Text(request, TagSender);
        line.recipients = Text(request, TagRecipients);
        line.peer = Text(request, TagPeerAddress);
        line.signature = by.reason;
        line.status = StatusText(by.action);
    } else {
        line.text += " (from " + Text(request, TagSender) + " to " + Text(request, TagRecipients) +
                     ", client " + Text(request, TagPeerAddress) + ")";
    }
    Log(std::move(line));
}

void LogPushedOut(const quarantine::KeptMessage& message) {
    // Of the others somebody has the message, or the most of it.
    const bool held = message.state != quarantine::state::kReleased &&
                      message.state != quarantine::state::kOriginal;
    Log({.kind = held ? kEventWarning : kEventInfo,
         .text = "deleted from the quarantine to make room: " + message.id + " (" + message.state +
                 ", " + std::to_string(message.size) + " bytes, from " + message.sender + " to " +
                 message.recipients + ", client " + message.peer + ")"});
}

// The line that the proxy writes of the message names the id, too.
void NoteKept(std::vector<maild::Finding>& findings, const maild::Decision& decision,
              const std::string& id) {
    for (maild::Finding& each : findings) {
        if (&each == decision.by && each.section != maild::Section::kAntivirus)
            each.text = each.reason + " (in the quarantine as " + id + ")";
    }
}

// A message of `vtsmtpproxy check`, which lies where the proxy has none.
bool IsSample(const std::string& path) {
    return path.starts_with(platform::HomePath(kSampleFiles));
}
// Neither rules nor what is done with infected mail hide that.
void KeepWhatTheEngineSays(const Judgement& judgement, std::vector<maild::Finding>& findings) {
    std::erase_if(findings, [](const maild::Finding& each) {
        return each.section != maild::Section::kAntivirus;
    });
    if (judgement.scan.outcome != ScanOutcome::kInfected) return;
    for (maild::Finding& each : findings) each.action = maild::Action::kReject;
}

std::int32_t EventOf(const maild::Decision& decision) {
    if (decision.action == maild::Action::kQuarantine) return kStatQuarantined;
    return decision.by == nullptr ? kStatClean : decision.by->event;
}

// What the statistics show beside the event.
std::string LabelOf(const Judgement& judgement, std::int32_t event,
                    const maild::Decision& decision) {
    if (judgement.scan.outcome == ScanOutcome::kInfected) return judgement.scan.text;
    if (decision.by != nullptr && decision.by->section == maild::Section::kAntispam &&
        event != kStatClean)
        return decision.by->reason;
    const bool ruled =
        decision.by != nullptr && (decision.by->section == maild::Section::kContent ||
                                   decision.by->section == maild::Section::kAttachments);
    if (ruled) return decision.by->rule + ": " + decision.by->reason;
    return event == kStatStructureRefused ? decision.by->reason : judgement.encrypted;
}

}  // namespace

MailDaemon::MailDaemon()
    : Daemon("VTMAILD", "Vantrel Mail Scanner",
             "Scans the messages that the Vantrel SMTP proxy hands to it", "vtmaild",
             metrics::Program::kMailDaemon) {}

trelis::Registration MailDaemon::Keys() const {
    return {trelis::Program::kMailDaemon, "VTMAILD", displayName};
}

bool MailDaemon::Start(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) null_ = null_ || std::strcmp(argv[i], "--null") == 0;
    if (null_)
        std::fprintf(stderr,
                     "VTMAILD: --null: every message is called clean, nothing is scanned\n");
    threads_ = LoadThreads();
    LogClientInit("Vantrel Mail Scanner", kLocalStore);
    settings_.Load();  // a signal to stop may come from now on, on a thread of its own
    if (settings_.Current() == nullptr) return false;
    // For the proxy, which refuses at once what would be put off for ever.
    TrelisSetValue(kLocalStore, kUnaskedLimit.Path().c_str(),
                   std::to_string(null_ ? 0 : kUsualMaxFileSize).c_str());
    if (null_) return true;
    quarantine_.TellOfPushedOut(LogPushedOut);
    keeper_.Start([this] { return QuarantineLimits(); },
                  [](const std::string& text) { Log({.kind = kEventWarning, .text = text}); });
    engines_.Start(settings_.Current());
    following_ = true;
    if (!stats_.Start()) Log({.kind = kEventWarning, .text = "can't send statistics"});
    return true;
}

void MailDaemon::End() {
    keeper_.Stop();
    engines_.Stop();
    stats_.Stop();
    LogClientUninit();
    settings_.End();
}

int MailDaemon::StopSeconds() const {
    const std::shared_ptr<const Settings> settings = settings_.Current();
    return settings == nullptr ? 0 : std::min(settings->scanSeconds, kLongestStop);
}

quarantine::Limits MailDaemon::QuarantineLimits() const {
    const std::shared_ptr<const Settings> settings = settings_.Current();
    return {settings->quarantineDays, settings->quarantineSize};
}

// Under the lock of the settings: the engine hears of them in their order.
std::shared_ptr<const Settings> MailDaemon::ReadSettings() {
    std::shared_ptr<const Settings> settings = LoadSettings();
    if (following_) engines_.Follow(settings);
    return settings;
}

// What goes wrong in a way that nobody has thought of is told: the message is put off, and so each
// time that it comes again.
void MailDaemon::Answer(const void* data, std::uint32_t length, void** reply,
                        std::uint32_t* replyLength) {
    OwnedMessage request;
    if (request.Parse(data, length) != TAGMSG_OK) return;
    try {
        AnswerRequest(request, reply, replyLength);
    } catch (const std::exception& error) {
        Log({.kind = kEventError,
             .text = std::string("a message is put off: ") + error.what(),
             .path = Text(request.root, TagPath)});
        throw;
    }
}

void MailDaemon::AnswerRequest(OwnedMessage& request, void** reply, std::uint32_t* replyLength) {
    const std::string path = Text(request.root, TagPath);
    const bool ofEngines = path.empty() && Text(request.root, TagSection) == kEnginesSection;
    if (path.empty() && !ofEngines) return;
    OwnedMessage answer;
    if (TagMsgCreate(&answer.root) != TAGMSG_OK) return;
    if (ofEngines) {
        (void)settings_.Current();  // what has changed counts for this as for a scan
        if (BuildStates(answer.root, engines_.States()))
            TagMsgSerialize(answer.root, reply, replyLength);
        return;
    }
    if (null_) {
        if (BuildForward(answer.root)) TagMsgSerialize(answer.root, reply, replyLength);
        return;
    }
    const std::shared_ptr<const Settings> settings = settings_.Current();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(settings->scanSeconds);
    const maild::Stored message{path,
                                TransferOf(request.root),
                                Text(request.root, TagSender),
                                Text(request.root, TagRecipients),
                                Text(request.root, TagPeerAddress),
                                Text(request.root, TagHelo),
                                Text(request.root, TagLogId)};
    AllFindings verdict = JudgeBySections(engines_, *settings, path.c_str(), message.transfer,
                                          {message.sender, message.recipients});
    const Judgement& judgement = verdict.judgement;
    std::vector<maild::Finding>& findings = verdict.findings;
    antispam_.Look(settings->antispam,
                   {path, message.transfer, message.sender, message.recipients, message.peer,
                    message.helo, end},
                   findings);
    if (IsSample(path)) {
        KeepWhatTheEngineSays(judgement, findings);
        const maild::Decision decision = maild::Decide(findings);
        if (decision.by != nullptr) LogDecision(request.root, path, *decision.by, "");
        if (BuildAnswer(answer.root, findings, decision))
            TagMsgSerialize(answer.root, reply, replyLength);
        return;
    }
    maild::Decision decision = maild::Decide(findings);
    const maild::Done done = maild::Perform(message, findings, decision, verdict.parts, quarantine_,
                                            {settings->quarantineDays, settings->quarantineSize});
    if (!done.good) {
        // In front of all others: nobody but its sender has the message now.
        findings.insert(findings.begin(), {.action = maild::Action::kPutOff,
                                           .rule = "actions",
                                           .reason = done.why,
                                           .log = "a message is put off: " + done.why,
                                           .event = kStatNotScanned});
        decision = {maild::Action::kPutOff, &findings.front()};
    }
    if (decision.by != nullptr) LogDecision(request.root, path, *decision.by, done.keptAs);
    if (!done.keptAs.empty()) NoteKept(findings, decision, done.keptAs);
    const std::int32_t event = EventOf(decision);
    stats_.Add({event, message.peer, message.sender, message.recipients,
                LabelOf(judgement, event, decision), judgement.size});
    if (BuildAnswer(answer.root, findings, decision))
        TagMsgSerialize(answer.root, reply, replyLength);
}
