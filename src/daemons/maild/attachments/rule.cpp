#include "daemons/maild/attachments/rule.h"

#include <algorithm>

namespace maild {

namespace {

// Types that are known without libmagic, or that it gives to no text. One more here saves a
// millisecond for each text attached where a rule asks for it; a text's own type must not be here.
constexpr std::string_view kNoTexts[] = {
    "application/x-archive",
    "application/x-dosexec",
    "application/vnd.microsoft.portable-executable",
    "application/x-executable",
    "application/x-html-script",
    "application/x-iso9660-image",
    "application/x-mach-binary",
    "application/x-ms-shortcut",
    "application/x-msi",
    "application/x-office-encrypted",
    "application/x-office-macros",
    "application/x-ole-storage",
    "application/x-pie-executable",
    "application/x-sharedlib",
    "text/x-script",
};

}  // namespace

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

MagicUse AttachmentRules::AskForMagic() const {
    MagicUse use = MagicUse::kNever;
    for (const AttachmentRule& rule : rules) {
        if (rule.realType.Empty()) continue;
        if (!rule.realType.AllAmong(kNoTexts)) return MagicUse::kAll;
        use = MagicUse::kNoTexts;
    }
    return use;
}

}  // namespace maild
