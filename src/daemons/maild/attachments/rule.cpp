#include "daemons/maild/attachments/rule.h"

#include <algorithm>

namespace maild {

bool AttachmentRule::Matches(const Attachment& attachment) const {
    if (minSize && attachment.size < *minSize) return false;
    if (!declaredType.Empty() &&
        !(attachment.declared && declaredType.Match(FoldText(*attachment.declared))))
        return false;
    return (realType.Empty() || realType.MatchAny(attachment.types)) &&
           (fileName.Empty() || fileName.MatchAny(attachment.names));
}

const AttachmentRule* AttachmentRules::Find(const Attachment& attachment) const {
    const auto found = std::find_if(rules.begin(), rules.end(), [&](const AttachmentRule& rule) {
        return rule.Matches(attachment);
    });
    return found == rules.end() ? nullptr : &*found;
}

bool AttachmentRules::AskForRealTypes() const {
    return std::any_of(rules.begin(), rules.end(),
                       [](const AttachmentRule& rule) { return !rule.realType.Empty(); });
}

}  // namespace maild
