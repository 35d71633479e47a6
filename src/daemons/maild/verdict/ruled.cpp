#include "daemons/maild/verdict/ruled.h"

#include "libstats/codes.h"

namespace maild {

namespace {

// What becomes of the message, for the log, and the event.
struct Outcome {
    const char* words;
    std::int32_t event;
};
Outcome OutcomeOf(Action action) {
    switch (action) {
        case Action::kPass:
            return {"passes", kStatClean};
        case Action::kTag:
            return {"is tagged", kStatClean};
        case Action::kRemove:
            return {"loses a part", kStatClean};
        case Action::kQuarantine:
            return {"is held back", kStatQuarantined};
        case Action::kReject:
            return {"is refused", kStatRuleRefused};
        case Action::kDrop:
            return {"is dropped", kStatRuleDropped};
        case Action::kRedirect:
            return {"is redirected", kStatRuleRedirected};
        case Action::kPutOff:
            break;
    }
    return {"is put off", kStatNotScanned};
}

void Tell(Finding& finding) {
    const Outcome outcome = OutcomeOf(finding.action);
    finding.event = outcome.event;
    finding.log = std::string("a message ") + outcome.words + " by the rule " + finding.rule +
                  " on " + Word(finding.section) + ": " + finding.reason;
}

}  // namespace

Finding RuledFinding(Section section, Action action, const std::string& rule,
                     const std::string& what, const std::string& text) {
    Finding finding{.section = section, .action = action, .rule = rule, .reason = what};
    if (finding.action == Action::kReject) finding.text = text;
    if (finding.action == Action::kTag) finding.target = text;
    Tell(finding);
    return finding;
}

void AddTarget(Finding& finding, const std::string& address) {
    if (finding.action != Action::kRedirect) return;
    finding.target = address;
    if (!address.empty()) return;
    finding.action = Action::kReject;
    Tell(finding);
}

}  // namespace maild
