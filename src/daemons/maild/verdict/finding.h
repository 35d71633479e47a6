// verdict/: what the sections found and what becomes of the message.
//
// This header: a finding, and how several of them become one decision.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "daemons/maild/walk/part.h"

namespace maild {

enum class Section { kAntivirus, kAttachments, kContent, kAntispam };
inline constexpr Section kSections[] = {Section::kAntivirus, Section::kAttachments,
                                        Section::kContent, Section::kAntispam};

enum class Action { kPass, kTag, kRemove, kQuarantine, kRedirect, kDrop, kReject, kPutOff };

// As the log and `vtmaild test` name it: "antivirus", "attachments", "content", "antispam".
const char* Word(Section section);
// As the configuration writes it: "pass", "tag", "remove", "quarantine", "redirect", "drop",
// "reject", "put off".
const char* Word(Action action);
// The word in any case; "refuse" is "reject". Nothing for any other.
std::optional<Action> ActionOf(std::string_view word);

// What one rule of a section says of a message.
struct Finding {
    Section section = Section::kAntivirus;
    Action action = Action::kPass;
    std::string rule{};    // its name in the configuration: "WhenAmbiguous", "VirusAction"
    std::string reason{};  // what was found: a signature's name, a file's name, a score
    std::string log{};     // the whole sentence for the log; empty: nothing to say
    std::string text{};    // what the client is told behind the code, of a rule's own
    std::string part{};    // the place of the part, as Part has it; empty: the whole message
    Range range{};         // of the stored file, what `remove` takes out
    std::string target{};  // of `redirect`: addresses, ';' between two; of `tag`: what is put in
    long long value = 0;   // a score, in thousandths, or whatever the rule counts
    // Of a tag: lines to put in front of the message's headers, and text in front of its subject.
    std::vector<std::pair<std::string, std::string>> headers{};
    std::string subjectPrefix{};
    std::int32_t event = 0;  // of libstats/codes.h, if this finding decides
};

// The action that wins, and the finding that it is of.
struct Decision {
    Action action = Action::kPass;
    const Finding* by = nullptr;  // null: nothing was found; one of those handed in
};

// The strongest finding decides, the first of several that are equally strong:
//
//   pass < tag < remove     the message is delivered; all tags and removals are done together
//   < redirect < quarantine somebody else gets it, or may let it out later
//   < put off               nobody has looked at all of it: until then nobody may get it
//   < redirect, quarantine of malware   the antivirus section knows enough: no other section's
//                           trouble keeps infected mail coming back again and again
//   < drop < reject         nobody gets it; whoever sent it should rather know
//
// So a section that could not look never lets another one deliver the message, and an infected
// message is never treated milder than the antivirus section alone would treat it.
Decision Decide(std::span<const Finding> findings);
// The same among one section's.
Decision Decide(std::span<const Finding> findings, Section section);

// Whether the message goes on to its recipients: then tags and removals are to be done.
constexpr bool Delivers(Action action) { return action <= Action::kRemove; }

}  // namespace maild
