#include "daemons/maild/reply.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tagmsg/tags.h"

namespace {

using maild::Action;
using maild::Decision;
using maild::Finding;
using maild::Section;

// What becomes of the message, in the root's mask and the sections'.
constexpr std::int32_t kMaskForward = 1;
constexpr std::int32_t kMaskDrop = 2;
constexpr std::int32_t kMaskReject = 4;
constexpr std::int32_t kMaskChildren = 0x10;

bool Add(TagMsgNode* node, std::uint32_t tag, std::int32_t number) {
    return TagMsgAddAttr(node, tag, &number) == TAGMSG_OK;
}
bool Add(TagMsgNode* node, std::uint32_t tag, const char* text) {
    return TagMsgAddAttr(node, tag, text) == TAGMSG_OK;
}

TagMsgNode* AddChild(TagMsgNode* parent) {
    TagMsgNode* child = nullptr;
    if (TagMsgCreate(&child) != TAGMSG_OK || TagMsgAddChild(parent, child) != TAGMSG_OK)
        return nullptr;
    return child;
}

struct SectionName {
    const char* text;
    // The bit of its mask by which the session takes its recipients for addresses to redirect to.
    std::int32_t redirectBit;
};
// In the order of Section.
constexpr SectionName kNames[] = {
    {"Antivirus", 1}, {"AttachFilter", 2}, {"ContentFilter", 2}, {"Antispam", 2}};

std::int32_t MaskOf(Action action) {
    switch (action) {
        case Action::kPass:
        case Action::kTag:
        case Action::kRemove:
            return kMaskForward;
        case Action::kQuarantine:
        case Action::kRedirect:
        case Action::kDrop:
            return kMaskDrop;
        case Action::kReject:
        case Action::kPutOff:
            break;
    }
    return kMaskReject;
}

bool AddObject(TagMsgNode* section, const Finding& finding) {
    TagMsgNode* object = AddChild(section);
    return object != nullptr &&
           Add(object, TagObjectName, finding.part.empty() ? "message" : finding.part.c_str()) &&
           Add(object, TagObjectTextA, finding.reason.c_str()) && Add(object, TagObjectTextB, "") &&
           Add(object, TagObjectTextC, "") && Add(object, TagResultCode, 1) &&
           Add(object, TagObjectStatus, 1);
}

// `mine`: the section's strongest finding.
bool AddSection(TagMsgNode* root, std::span<const Finding> findings, const Finding& mine,
                const Decision& decision) {
    const SectionName& name = kNames[static_cast<std::size_t>(mine.section)];
    // Addresses count for nothing unless it is they that the message goes to, and are recipients as
    // often as they are told.
    const bool redirects = decision.action == Action::kRedirect &&
                           mine.action == Action::kRedirect && !mine.target.empty() &&
                           (&mine == decision.by || mine.target != decision.by->target);
    // A drop would be a redirection's bit to the session.
    const std::int32_t mask = MaskOf(mine.action) | (redirects ? name.redirectBit : 0);
    TagMsgNode* section = AddChild(root);
    if (section == nullptr || !Add(section, TagSection, name.text) ||
        !Add(section, TagResultCode, 1) || !Add(section, TagActionMask, mask))
        return false;
    if (redirects && !Add(section, TagRecipients, mine.target.c_str())) return false;
    if (mine.section == Section::kAntispam)
        return Add(section, TagFilterValue, static_cast<std::int32_t>(mine.value));
    if (mine.section != Section::kAntivirus) return true;
    return std::all_of(findings.begin(), findings.end(), [&](const Finding& each) {
        return each.section != mine.section || each.action == Action::kPass ||
               AddObject(section, each);
    });
}

// Why, for the line that the proxy writes of the message: the rule's own words, or what it has
// found. Of malware the section's objects say it.
bool AddReason(TagMsgNode* root, const Finding& finding) {
    const bool told = finding.section == Section::kAntivirus && finding.text.empty();
    const std::string& text = finding.text.empty() ? finding.reason : finding.text;
    if (told || text.empty()) return true;
    TagMsgNode* entry = AddChild(root);
    return entry != nullptr && Add(entry, TagEntryCode, 1) &&
           Add(entry, TagObjectName, finding.part.empty() ? "message" : finding.part.c_str()) &&
           Add(entry, TagFilterValue, static_cast<std::int32_t>(finding.value)) &&
           Add(entry, TagMessage, text.c_str());
}

}  // namespace

bool BuildStates(TagMsgNode* root, const std::vector<EngineState>& states) {
    return std::all_of(states.begin(), states.end(), [root](const EngineState& each) {
        TagMsgNode* engine = AddChild(root);
        return engine != nullptr && Add(engine, TagObjectName, each.name.c_str()) &&
               Add(engine, TagHost, each.address.c_str()) &&
               Add(engine, TagStatusText, each.state.c_str()) &&
               Add(engine, TagInfoText, each.version.c_str()) &&
               Add(engine, TagCount, each.outstanding);
    });
}

bool BuildForward(TagMsgNode* root) { return Add(root, TagActionMask, kMaskForward); }

bool BuildAnswer(TagMsgNode* root, std::span<const Finding> findings, const Decision& decision) {
    if (decision.action == Action::kPutOff) return false;
    std::vector<const Finding*> sections;
    for (const Section section : maild::kSections) {
        const Decision strongest = maild::Decide(findings, section);
        if (strongest.action != Action::kPass) sections.push_back(strongest.by);
    }
    const std::int32_t mask = MaskOf(decision.action);
    if (!Add(root, TagActionMask, sections.empty() ? mask : mask | kMaskChildren)) return false;
    return std::all_of(
               sections.begin(), sections.end(),
               [&](const Finding* each) { return AddSection(root, findings, *each, decision); }) &&
           (decision.action == Action::kPass || AddReason(root, *decision.by));
}
