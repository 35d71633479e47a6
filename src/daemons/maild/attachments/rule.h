// Inside attachments/: one rule, and what it is asked about.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "daemons/maild/attachments/names.h"
#include "daemons/maild/attachments/realtype.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

// An attachment, or a file in one that is an archive.
struct Attachment {
    std::vector<std::string> names;  // all as ReadingsOfName gives them
    std::optional<std::string>
        declared;                    // its type in small letters; a file in an archive has none
    std::vector<std::string> types;  // that its bytes show (realtype.h), in small letters
    long long size = 0;              // bytes, decoded
};

struct AttachmentRule {
    std::string name;
    NamePatterns fileName;
    NamePatterns declaredType;
    NamePatterns realType;
    std::optional<long long> minSize;
    Action action = Action::kReject;
    std::string text;

    // All that is given matches; a rule without conditions matches everything.
    bool Matches(const Attachment& attachment) const;
};

struct ArchiveLimits {
    int maxDepth = 8;                  // archives within archives
    int maxEntries = 10000;            // files in all archives of one message
    long long maxBytes = 256LL << 20;  // of all of them, decoded
};

struct AttachmentRules {
    std::vector<AttachmentRule> rules;  // in the order in which they are asked
    ArchiveLimits archives;

    bool Any() const { return !rules.empty(); }
    // The first one that matches; null: none does.
    const AttachmentRule* Find(const Attachment& attachment) const;
    // What libmagic has to be asked about, as far as their RealTypes go.
    MagicUse AskForMagic() const;
};

}  // namespace maild
