#include "daemons/maild/antispam/settings.h"

#include "daemons/maild/antispam/opinion.h"
#include "text/printable.h"
#include "trelis/keys/forms.h"
#include "trelis/keys/settings.h"

namespace maild {

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kMailDaemonKey, name}; }

std::optional<double> ReadScore(const trelis::Key& key, SpamSettings& settings) {
    const std::string text = trelis::ReadText(key);
    if (text.empty()) return {};
    if (const std::optional<double> value = trelis::ParseScore(text)) return ScoreOf(*value);
    settings.unread += std::string(settings.unread.empty() ? "" : ", ") + key.Row().name;
    return {};
}

}  // namespace

SpamSettings LoadSpamSettings() {
    SpamSettings settings;
    settings.address = trelis::ReadText(Key("Antispam/Address"));
    settings.tagScore = ReadScore(Key("Antispam/TagScore"), settings);
    settings.quarantineScore = ReadScore(Key("Antispam/QuarantineScore"), settings);
    settings.rejectScore = ReadScore(Key("Antispam/RejectScore"), settings);
    settings.subjectPrefix = CleanText(trelis::ReadText(Key("Antispam/SubjectPrefix")));
    settings.seconds = trelis::ReadInt(Key("Antispam/Timeout"));
    settings.putOffWhenDown = trelis::ReadText(Key("Antispam/WhenDown")) != "pass";
    return settings;
}

}  // namespace maild
