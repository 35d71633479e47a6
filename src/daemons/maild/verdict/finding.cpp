#include "daemons/maild/verdict/finding.h"

#include "text/ascii.h"

namespace maild {

namespace {

constexpr const char* kActionWords[] = {"pass",     "tag",  "remove", "quarantine",
                                        "redirect", "drop", "reject", "put off"};
constexpr const char* kSectionWords[] = {"antivirus", "attachments", "content", "antispam"};

// The order that the header tells.
int Strength(const Finding& finding) {
    const bool malware = finding.section == Section::kAntivirus;
    switch (finding.action) {
        case Action::kPass:
            return 0;
        case Action::kTag:
            return 1;
        case Action::kRemove:
            return 2;
        case Action::kRedirect:
            return malware ? 6 : 3;
        case Action::kQuarantine:
            return malware ? 7 : 4;
        case Action::kPutOff:
            return 5;
        case Action::kDrop:
            return 8;
        case Action::kReject:
            return 9;
    }
    return 5;
}

void Strengthen(Decision& decision, const Finding& finding) {
    if (decision.by == nullptr || Strength(finding) > Strength(*decision.by))
        decision = {finding.action, &finding};
}

}  // namespace

const char* Word(Section section) { return kSectionWords[static_cast<std::size_t>(section)]; }
const char* Word(Action action) { return kActionWords[static_cast<std::size_t>(action)]; }

std::optional<Action> ActionOf(std::string_view word) {
    if (EqualIgnoringCase(word, "refuse")) return Action::kReject;
    for (std::size_t i = 0; i < std::size(kActionWords); ++i) {
        if (EqualIgnoringCase(word, kActionWords[i])) return static_cast<Action>(i);
    }
    return {};
}

Decision Decide(std::span<const Finding> findings) {
    Decision decision;
    for (const Finding& finding : findings) Strengthen(decision, finding);
    return decision;
}

Decision Decide(std::span<const Finding> findings, Section section) {
    Decision decision;
    for (const Finding& finding : findings) {
        if (finding.section == section) Strengthen(decision, finding);
    }
    return decision;
}

}  // namespace maild
