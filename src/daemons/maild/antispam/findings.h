// Inside antispam/: what an opinion comes to, by the settings.
#pragma once

#include "daemons/maild/antispam/opinion.h"
#include "daemons/maild/antispam/settings.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

// One finding, of the strongest that fits:
//
//   reject      RejectScore is reached; without one: the engine says so
//   put off     the engine says "greylist" or "soft reject": its sender comes again
//   quarantine  QuarantineScore is reached; without one: the engine says so
//   tag         TagScore is reached, without one the engine says so; or the engine would do more
//               than the two scores above allow
//   pass        else, with the score as its reason
//
// Of tag and quarantine the finding has the headers, and of tag the prefix of the subject.
// Where nobody has answered, WhenDown decides.
Finding SpamFinding(const SpamSettings& settings, const SpamOpinion& opinion);

}  // namespace maild
