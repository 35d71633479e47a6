// Owners for what the operations on tagged messages hand out, and what they do with them.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>

#include "tagmsg/tagmsg.h"

// A message: its tree is freed at the end of the scope. root is filled by TagMsgCreate or Parse.
struct OwnedMessage {
    TagMsgNode* root = nullptr;
    OwnedMessage() = default;
    OwnedMessage(const OwnedMessage&) = delete;
    OwnedMessage& operator=(const OwnedMessage&) = delete;
    ~OwnedMessage() { TagMsgFree(root, 1, 1); }
    // As TagMsgParse; a length beyond its own is bad too.
    int Parse(const void* data, std::uint32_t length) {
        return length > 0x7FFFFFFF ? TAGMSG_BAD
                                   : TagMsgParse(&root, data, static_cast<std::int32_t>(length));
    }
};

// A flat form, filled by TagMsgSerialize.
struct OwnedFlatForm {
    void* data = nullptr;
    std::uint32_t length = 0;  // bytes
    OwnedFlatForm() = default;
    OwnedFlatForm(const OwnedFlatForm&) = delete;
    OwnedFlatForm& operator=(const OwnedFlatForm&) = delete;
    ~OwnedFlatForm() { std::free(data); }
};

// An attribute to add, as TagMsgAddAttr takes it: a null value adds nothing.
struct TagMsgField {
    std::uint32_t tag;
    const void* value;
};

// The flat form of a message of one node with these attributes, in the order of adding.
int TagMsgFlatten(std::span<const TagMsgField> fields, OwnedFlatForm& flat);
