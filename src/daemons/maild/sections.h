// Inside maild/: all that the sections say of one message.
#pragma once

#include <vector>

#include "daemons/maild/actions/partmap.h"
#include "daemons/maild/content/filter.h"
#include "daemons/maild/judge.h"

struct AllFindings {
    Judgement judgement;                   // also with what archives held
    std::vector<maild::Finding> findings;  // a removal that can't be done is a quarantine here
    maild::PartMap parts;
};

// As JudgeMessage, and the rules of the other sections besides. Of a message in which the engine
// has found malware, and of one that is too large to be looked at, no rule is asked. Any thread.
AllFindings JudgeBySections(Engines& engines, const Settings& settings, const char* path,
                            Transfer transfer, const maild::Envelope& envelope);
