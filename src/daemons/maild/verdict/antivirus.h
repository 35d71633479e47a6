// Inside verdict/: what the antivirus section's judgement comes to, by the settings.
#pragma once

#include <vector>

#include "daemons/maild/judge.h"
#include "daemons/maild/settings.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

// At most one of each: malware; what is encrypted; what could not be scanned; what is too complex;
// structure that is read in different ways.
std::vector<Finding> AntivirusFindings(const Settings& settings, const Judgement& judgement);

}  // namespace maild
