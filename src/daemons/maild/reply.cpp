#include "daemons/maild/reply.h"

#include <cstdint>

#include "tagmsg/tags.h"

namespace {

constexpr std::int32_t kMaskForward = 1;
constexpr std::int32_t kMaskDrop = 2;
constexpr std::int32_t kMaskReject = 4;
constexpr std::int32_t kMaskChildren = 0x10;
constexpr std::int32_t kRedirectBit = 1;

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

// redirectAddress: null if the message goes nowhere.
bool BuildFinding(TagMsgNode* root, std::int32_t mask, const char* redirectAddress,
                  const std::string& what) {
    if (!Add(root, TagActionMask, mask | kMaskChildren)) return false;
    TagMsgNode* section = AddChild(root);
    if (section == nullptr || !Add(section, TagSection, "Antivirus") ||
        !Add(section, TagResultCode, 1) ||
        !Add(section, TagActionMask, redirectAddress != nullptr ? mask | kRedirectBit : mask))
        return false;
    if (redirectAddress != nullptr && !Add(section, TagRecipients, redirectAddress)) return false;
    TagMsgNode* object = AddChild(section);
    return object != nullptr && Add(object, TagObjectName, "message") &&
           Add(object, TagObjectTextA, what.c_str()) && Add(object, TagObjectTextB, "") &&
           Add(object, TagObjectTextC, "") && Add(object, TagResultCode, 1) &&
           Add(object, TagObjectStatus, 1);
}

}  // namespace

bool BuildForward(TagMsgNode* root) { return Add(root, TagActionMask, kMaskForward); }

bool BuildInfected(TagMsgNode* root, const Settings& settings, const std::string& signature) {
    const bool redirect = settings.Redirects();
    const bool drop = redirect || settings.virusAction == "drop";
    return BuildFinding(root, drop ? kMaskDrop : kMaskReject,
                        redirect ? settings.redirectAddress.c_str() : nullptr, signature);
}

bool BuildRefused(TagMsgNode* root, const std::string& reason) {
    return BuildFinding(root, kMaskReject, nullptr, reason);
}
