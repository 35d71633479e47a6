#include "daemons/maild/verdict/antivirus.h"

#include "libstats/codes.h"

namespace maild {

namespace {

bool MayPass(const Settings& settings, ScanOutcome outcome) {
    switch (outcome) {
        case ScanOutcome::kDown:
            return settings.passWhenDown;
        case ScanOutcome::kBusy:
            return settings.passWhenBusy;
        case ScanOutcome::kTimedOut:
            return settings.passWhenTimedOut;
        case ScanOutcome::kTooBig:
            return settings.passWhenTooBig;
        default:
            return false;
    }
}

// A word that is none rejects.
Action ActionOnMalware(const Settings& settings) {
    if (settings.antivirusAction.empty()) {
        if (settings.Redirects()) return Action::kRedirect;
        return settings.virusAction == "drop" ? Action::kDrop : Action::kReject;
    }
    const Action action = ActionOf(settings.antivirusAction).value_or(Action::kReject);
    const bool nowhere = action == Action::kRedirect && settings.redirectAddress.empty();
    return nowhere ? Action::kReject : action;
}

Finding Malware(const Settings& settings, const ScanResult& scan) {
    Finding finding{.action = ActionOnMalware(settings),
                    .rule = "VirusAction",
                    .reason = scan.text,
                    .log = "virus found: " + scan.text};
    switch (finding.action) {
        case Action::kRedirect:
            finding.target = settings.redirectAddress;
            finding.event = kStatInfectedRedirected;
            break;
        case Action::kDrop:
            finding.event = kStatInfectedDropped;
            break;
        case Action::kPass:
        case Action::kTag:
            finding.event = kStatInfectedPassed;
            break;
        case Action::kPutOff:
            finding.event = kStatNotScanned;
            break;
        default:
            finding.event = kStatInfectedRefused;
    }
    return finding;
}

Finding Encrypted(const Settings& settings, const std::string& what) {
    switch (settings.whenEncrypted) {
        case WhenEncrypted::kRefuse:
            return {.action = Action::kReject,
                    .rule = "WhenEncrypted",
                    .reason = what,
                    .log = "an encrypted message is refused: " + what,
                    .event = kStatEncryptedRefused};
        case WhenEncrypted::kPutOff:
            return {.action = Action::kPutOff,
                    .rule = "WhenEncrypted",
                    .reason = what,
                    .log = "an encrypted message is put off: " + what,
                    .event = kStatNotScanned};
        case WhenEncrypted::kPass:
            break;
    }
    return {.rule = "WhenEncrypted",
            .reason = what,
            .log = "an encrypted message passes, what is encrypted was not scanned: " + what,
            .event = kStatEncryptedPassed};
}

Finding NotScanned(const Settings& settings, const ScanResult& scan) {
    if (MayPass(settings, scan.outcome))
        return {.rule = "PassWhen",
                .reason = scan.text,
                .log = "a message passes unscanned: " + scan.text,
                .event = kStatPassedUnscanned};
    return {.action = Action::kPutOff,
            .rule = "PassWhen",
            .reason = scan.text,
            .log = "a message could not be scanned: " + scan.text,
            .event = kStatNotScanned};
}

Finding Odd(WhenOdd when, const char* rule, const std::string& message, const std::string& what,
            std::int32_t passEvent) {
    Finding finding{.rule = rule, .reason = what};
    switch (when) {
        case WhenOdd::kPass:
            finding.log = message + " passes: " + what;
            finding.event = passEvent;
            break;
        case WhenOdd::kRefuse:
            finding.action = Action::kReject;
            finding.log = message + " is refused: " + what;
            finding.event = kStatStructureRefused;
            break;
        case WhenOdd::kPutOff:
            finding.action = Action::kPutOff;
            finding.log = message + " is put off: " + what;
            finding.event = kStatNotScanned;
            break;
    }
    return finding;
}

}  // namespace

std::vector<Finding> AntivirusFindings(const Settings& settings, const Judgement& judgement) {
    const ScanResult& scan = judgement.scan;
    if (scan.outcome == ScanOutcome::kInfected) return {Malware(settings, scan)};
    std::vector<Finding> findings;
    if (scan.outcome != ScanOutcome::kClean) findings.push_back(NotScanned(settings, scan));
    if (!judgement.encrypted.empty()) {
        Finding encrypted = Encrypted(settings, judgement.encrypted);
        // What may not pass however well it was scanned is not told as a failed scan.
        const bool first = encrypted.action != Action::kPass;
        findings.insert(first ? findings.begin() : findings.end(), std::move(encrypted));
    }
    if (!judgement.tooComplex.empty())
        findings.push_back(Odd(settings.tooComplex, "TooComplex", "a message that is too complex",
                               judgement.tooComplex, kStatPassedUnscanned));
    for (const bool sloppy : {false, true}) {
        std::string what;
        std::string place;
        for (const Ambiguity& each : judgement.walk.ambiguities) {
            if (KindOf(each.what).sloppy != sloppy) continue;
            if (what.empty()) place = each.place;
            what += (what.empty() ? "" : ", ") + std::string(KindOf(each.what).words);
        }
        if (what.empty()) continue;
        if (sloppy) {
            findings.push_back(
                {.rule = "structure", .reason = what, .part = place, .event = kStatClean});
        } else {
            findings.push_back(Odd(settings.whenAmbiguous, "WhenAmbiguous",
                                   "a message that can be read in different ways", what,
                                   kStatClean));
            findings.back().part = place;
        }
    }
    return findings;
}

}  // namespace maild
