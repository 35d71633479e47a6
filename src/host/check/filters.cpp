// What the scan daemon's filters go by: rules, actions, scores, and the room for what is held back.
#include <algorithm>
#include <filesystem>
#include <optional>

#include "host/check/parts.h"
#include "pattern/pattern.h"
#include "platform/home.h"
#include "text/printable.h"
#include "trelis/keys/forms.h"

namespace {

namespace fs = std::filesystem;

consteval trelis::Key Daemon(const char* name) { return {trelis::kMailDaemonKey, name}; }
consteval trelis::Key OfAttachments(const char* name) { return {trelis::kAttachmentRuleKey, name}; }
consteval trelis::Key OfContent(const char* name) { return {trelis::kContentRuleKey, name}; }

constexpr trelis::Key kRedirect = Daemon("RedirectAddress");
constexpr trelis::Key kKeptSize = Daemon("Quarantine/MaxSize");
constexpr trelis::Key kSpamAddress = Daemon("Antispam/Address");
constexpr trelis::Key kScores[] = {Daemon("Antispam/TagScore"), Daemon("Antispam/QuarantineScore"),
                                   Daemon("Antispam/RejectScore")};
constexpr trelis::Key kPatterns[] = {OfAttachments("FileName"), OfAttachments("DeclaredType"),
                                     OfAttachments("RealType")};
constexpr trelis::Key kPasses[] = {Daemon("PassWhenDown"), Daemon("PassWhenBusy"),
                                   Daemon("PassWhenTimedOut"), Daemon("PassWhenTooBig")};
constexpr std::size_t kMostShown = 60;  // of a value

std::string Megabytes(std::uintmax_t bytes) { return std::to_string(bytes >> 20U) + " MB"; }

bool HoldsBack(const std::string& action) { return action == "quarantine" || action == "remove"; }

// A `[` without its end stands for itself, which hardly anybody means.
bool HasOpenSet(std::string_view pattern) {
    bool open = false;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '\\')
            ++i;
        else if (pattern[i] == (open ? ']' : '['))
            open = !open;
        else if (pattern[i] == ';' && open)
            return true;
    }
    return open;
}

class FilterCheck {
  public:
    explicit FilterCheck(Findings& findings) : findings_(findings) {}

    void Check() {
        CheckPasses();
        CheckVirusAction();
        EachRule(OfAttachments("FileName"), OfAttachments("Action"),
                 [this](const std::string& name) { CheckAttachmentRule(name); });
        EachRule(OfContent("Pattern"), OfContent("Action"),
                 [this](const std::string& name) { CheckContentRule(name); });
        CheckScores();
        if (holdsBack_) CheckRoom();
    }

  private:
    template <typename Use>
    void EachRule(const trelis::Key& list, const trelis::Key& action, Use use) {
        trelis::NameWalk names(list);
        for (std::string name; names.Next(name);) {
            use(name);
            TakeAction(action.Path({name}), trelis::ReadText(action, {name}), "what it meets");
        }
    }
    void TakeAction(const std::string& key, const std::string& action, const char* what);
    void CheckPasses();
    void CheckVirusAction();
    void CheckAttachmentRule(const std::string& name);
    void CheckContentRule(const std::string& name);
    void CheckScores();
    void CheckRoom();

    Findings& findings_;
    bool holdsBack_ = false;  // mail may come into the quarantine
};

void FilterCheck::TakeAction(const std::string& key, const std::string& action, const char* what) {
    holdsBack_ = holdsBack_ || HoldsBack(action);
    if (action == "redirect" && trelis::ReadText(kRedirect).empty())
        findings_.Warn(key, std::string(what) + " is rejected, for there is nowhere to redirect it",
                       "set " + kRedirect.Path() + ", or the action to reject");
}

void FilterCheck::CheckPasses() {
    constexpr trelis::Key kTooComplex = Daemon("TooComplex");
    for (const trelis::Key& each : kPasses) {
        if (trelis::ReadFlag(each))
            findings_.Warn(each.Path(), "mail may be delivered unscanned",
                           "set this to N: mail is put off then, and comes again");
    }
    if (trelis::ReadText(kTooComplex) == "pass")
        findings_.Warn(kTooComplex.Path(), "mail may be delivered unscanned",
                       "set put off or refuse");
}

void FilterCheck::CheckVirusAction() {
    constexpr trelis::Key kAction = Daemon("Antivirus/Action");
    constexpr trelis::Key kOlder = Daemon("VirusAction");
    const std::string action = trelis::ReadText(kAction);
    const trelis::Key& decides = action.empty() ? kOlder : kAction;
    TakeAction(decides.Path(), trelis::ReadText(decides), "infected mail");
    if (action == "pass")
        findings_.Warn(kAction.Path(), "infected mail is delivered",
                       "set reject, unless another program stops it");
}

void FilterCheck::CheckAttachmentRule(const std::string& name) {
    bool any = trelis::ReadSize(OfAttachments("MinSize"), {name}).has_value();
    bool given = any;
    for (const trelis::Key& each : kPatterns) {
        const std::string text = trelis::ReadText(each, {name});
        given = given || !text.empty();
        any = any || text.find_first_not_of("; \t") != std::string::npos;
        if (HasOpenSet(text))
            findings_.Warn(each.Path({name}), "a [ without its ] stands for itself",
                           "write ] behind the characters, or \\[ if it is meant so");
    }
    // A name that is left, no more.
    if (!given && !trelis::ReadIfGiven(OfAttachments("Action"), {name}) &&
        !trelis::ReadIfGiven(OfAttachments("Text"), {name}))
        return;
    if (!any)
        findings_.Warn(OfAttachments("FileName").Path({name}),
                       "the rule has no condition, so it is for every attachment",
                       "set this, RealType, DeclaredType or MinSize, or delete the rule");
}

void FilterCheck::CheckContentRule(const std::string& name) {
    constexpr trelis::Key kPattern = OfContent("Pattern");
    const std::string text = trelis::ReadText(kPattern, {name});
    std::string why;
    if (!text.empty()) {
        if (CompilePattern(text, why) == nullptr)
            findings_.Error(kPattern.Path({name}),
                            '"' + CleanText(text, kMostShown) + "\" is no pattern (" + why +
                                "), so the rule is left out",
                            "set a regular expression in Perl's syntax; \\ makes a sign plain");
    } else if (trelis::ReadIfGiven(OfContent("Where"), {name}) ||
               trelis::ReadIfGiven(OfContent("Action"), {name}) ||
               trelis::ReadIfGiven(OfContent("Text"), {name})) {
        findings_.Error(kPattern.Path({name}), "the rule has no pattern, so it is left out",
                        "set a regular expression in Perl's syntax, or delete the rule");
    }
}

void FilterCheck::CheckScores() {
    const bool asked = !trelis::ReadText(kSpamAddress).empty();
    // Whoever is asked may say so, too.
    holdsBack_ = holdsBack_ || asked;
    const trelis::Key* lower = nullptr;
    double most = 0;
    for (const trelis::Key& each : kScores) {
        const std::optional<double> score = trelis::ParseScore(trelis::ReadText(each));
        if (!score) continue;
        if (!asked) {
            findings_.Warn(each.Path(), "nobody is asked for scores",
                           "set " + kSpamAddress.Path() + ", or delete this");
            return;
        }
        if (lower != nullptr && *score < most)
            findings_.Warn(
                lower->Path(),
                "it is above " + std::string(each.Row().name) + ", so it never comes to this",
                "set the scores in their order: tag, quarantine, reject");
        lower = &each;
        most = *score;
    }
}

void FilterCheck::CheckRoom() {
    const auto size =
        static_cast<std::uintmax_t>(std::max(0LL, trelis::ReadSize(kKeptSize).value_or(0)));
    const long long largest = trelis::ReadSize(Daemon("MaxFileSize")).value_or(0);
    if (size < static_cast<std::uintmax_t>(largest)) {
        findings_.Warn(kKeptSize.Path(),
                       "a message that is larger can't be held back, and is put off",
                       "set at least " + std::to_string(largest) + ", as MaxFileSize is");
        return;
    }
    std::error_code error;
    std::string folder = platform::HomePath("quarantine");
    std::uintmax_t used = 0;
    for (fs::directory_iterator each(folder, error), end; !error && each != end;
         each.increment(error)) {
        std::error_code gone;
        const std::uintmax_t bytes = each->file_size(gone);
        if (!gone) used += bytes;
    }
    if (!fs::exists(folder, error)) folder = platform::Home();
    const fs::space_info space = fs::space(folder, error);
    if (error || used + space.available >= size) return;
    findings_.Warn(kKeptSize.Path(),
                   "the quarantine may have " + Megabytes(size) + ", and there is room for " +
                       Megabytes(used + space.available),
                   "set less (Quarantine/KeepDays makes room sooner, too), or make room on its "
                   "file system");
}

}  // namespace

void CheckFilters(Findings& findings) { FilterCheck(findings).Check(); }
