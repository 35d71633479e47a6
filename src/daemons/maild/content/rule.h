// Inside content/: one rule, and where it looks.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/content/pattern.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

// Where a rule looks.
struct Places {
    bool sender = false;
    bool recipient = false;
    bool subject = false;
    bool text = false;                 // plain text, and what an HTML part shows
    bool html = false;                 // HTML as it is
    std::vector<std::string> headers;  // names in small letters

    bool OfBodies() const { return text || html; }
};
// `sender;subject;header:NAME`, in any case. Nothing if a word is none of them, or there is none.
std::optional<Places> ParsePlaces(std::string_view words);

struct ContentRule {
    std::string name;
    Places places;
    std::shared_ptr<const Pattern> pattern;
    Action action = Action::kReject;
    std::string text;
};

struct ContentRules {
    std::vector<ContentRule> rules;  // in the order in which they are asked

    bool Any() const { return !rules.empty(); }
};

}  // namespace maild
