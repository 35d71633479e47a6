// Owners for what the operations on tagged messages hand out.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "tagmsg/tagmsg.h"

// A message: its tree is freed at the end of the scope. root is filled by TagMsgCreate or
// TagMsgParse.
struct OwnedMessage {
    TagMsgNode* root = nullptr;
    OwnedMessage() = default;
    OwnedMessage(const OwnedMessage&) = delete;
    OwnedMessage& operator=(const OwnedMessage&) = delete;
    ~OwnedMessage() { TagMsgFree(root, 1, 1); }
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
