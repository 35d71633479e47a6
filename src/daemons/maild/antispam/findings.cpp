#include "daemons/maild/antispam/findings.h"

#include <cmath>
#include <cstdio>

#include "libstats/codes.h"

namespace maild {

namespace {

constexpr double kThousandths = 1000;
constexpr std::size_t kLongestSymbols = 600;  // in a header: a line has less than 998 characters
constexpr std::size_t kNamedSymbols = 5;      // in the log

std::string ScoreText(double score) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", score);
    return text;
}

std::string Symbols(const SpamOpinion& opinion, std::size_t most, std::size_t longest) {
    std::string text;
    for (const std::string& each : opinion.symbols) {
        if (most-- == 0 || text.size() + each.size() + 1 > longest) break;
        text += (text.empty() ? "" : ",") + each;
    }
    return text.empty() ? "none" : text;
}

bool Reaches(double score, const std::optional<double>& threshold, bool advised) {
    return threshold ? score >= *threshold : advised;
}

MailHeaders Headers(const SpamSettings& settings, const SpamOpinion& opinion) {
    const double required = settings.tagScore.value_or(opinion.required);
    MailHeaders headers{{"X-Spam-Score", ScoreText(opinion.score)},
                        {"X-Spam-Status", "Yes, score=" + ScoreText(opinion.score) +
                                              " required=" + ScoreText(required) + " tests=" +
                                              Symbols(opinion, kMostSymbols, kLongestSymbols)}};
    headers.insert(headers.end(), opinion.headers.begin(), opinion.headers.end());
    return headers;
}

Finding Unanswered(const SpamSettings& settings, const SpamOpinion& opinion) {
    Finding finding{.section = Section::kAntispam, .rule = "WhenDown", .reason = opinion.why};
    finding.event = kStatClean;
    if (!settings.putOffWhenDown) return finding;
    finding.action = Action::kPutOff;
    finding.log = "a message is put off, nobody says whether it is spam: " + opinion.why;
    finding.event = kStatNotScanned;
    return finding;
}

}  // namespace

Finding SpamFinding(const SpamSettings& settings, const SpamOpinion& opinion) {
    if (!opinion.answered) return Unanswered(settings, opinion);
    const SpamAdvice advice = opinion.advice;
    Finding finding{.section = Section::kAntispam,
                    .rule = "TagScore",
                    .reason = "score " + ScoreText(opinion.score),
                    .value = std::llround(opinion.score * kThousandths),
                    .event = kStatClean};
    const std::string seen =
        finding.reason + " (" + Symbols(opinion, kNamedSymbols, kLongestSymbols) + ")";
    if (advice == SpamAdvice::kSkip) {
        finding.reason = "not looked at, as its own settings say";
        return finding;
    }
    if (Reaches(opinion.score, settings.rejectScore, advice == SpamAdvice::kReject)) {
        finding.action = Action::kReject;
        finding.rule = "RejectScore";
        finding.log = "spam is refused: " + seen;
        finding.event = kStatSpamRefused;
    } else if (advice == SpamAdvice::kPutOff) {
        finding.action = Action::kPutOff;
        finding.rule = opinion.action;
        finding.log = "a message is put off by " + opinion.action + ": " + seen;
        finding.event = kStatSpamPutOff;
    } else if (Reaches(opinion.score, settings.quarantineScore,
                       advice == SpamAdvice::kQuarantine)) {
        finding.action = Action::kQuarantine;
        finding.rule = "QuarantineScore";
        finding.log = "spam is kept in the quarantine: " + seen;
        finding.event = kStatSpamQuarantined;
    } else if (Reaches(opinion.score, settings.tagScore, advice == SpamAdvice::kTag) ||
               advice == SpamAdvice::kReject || advice == SpamAdvice::kQuarantine) {
        finding.action = Action::kTag;
        finding.log = "spam is tagged: " + seen;
        finding.event = kStatSpamTagged;
        finding.subjectPrefix = settings.subjectPrefix;
    }
    if (finding.action == Action::kTag || finding.action == Action::kQuarantine)
        finding.headers = Headers(settings, opinion);
    return finding;
}

}  // namespace maild
