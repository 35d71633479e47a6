// Inside verdict/: the findings of rules that people write.
#pragma once

#include <string>

#include "daemons/maild/verdict/finding.h"

namespace maild {

// What a rule of the section says: `what` it has met, `text` its own words for a reject or a tag.
// Where a redirection goes is said by the settings (AddTarget).
Finding RuledFinding(Section section, Action action, const std::string& rule,
                     const std::string& what, const std::string& text);

// Of a rule that redirects: the address. Without one the message is rejected.
void AddTarget(Finding& finding, const std::string& address);

}  // namespace maild
