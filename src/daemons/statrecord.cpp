#include "daemons/statrecord.h"

#include <cstring>
#include <memory>

#include "tagmsg/tagmsg.h"

namespace stats {
namespace {

struct FreeTree {
    void operator()(TagMsgNode* root) const { TagMsgFree(root, 1, 1); }
};

}  // namespace

std::size_t Record::Size() const {
    std::size_t size = sizeof(Record);
    for (const TextField& field : kTextFields) {
        if (const auto& text = this->*field.member) size += text->size();
    }
    return size;
}

std::optional<Record> ParseRecord(const void* data, std::uint32_t length) {
    if (data == nullptr || length > 0x7FFFFFFF) return std::nullopt;
    TagMsgNode* raw = nullptr;
    if (TagMsgParse(&raw, data, static_cast<std::int32_t>(length)) != TAGMSG_OK)
        return std::nullopt;
    const std::unique_ptr<TagMsgNode, FreeTree> root(raw);

    std::optional<Record> record(std::in_place);
    const void* value = nullptr;
    for (const TextField& field : kTextFields) {
        if (TagMsgPeekAttr(raw, field.tag, &value) != TAGMSG_OK || value == nullptr) continue;
        const auto* text = static_cast<const char*>(value);
        (*record.*field.member).emplace(text, strnlen(text, kTextLimit));
    }
    for (const NumberField& field : kNumberFields) {
        std::int32_t number = 0;
        if (TagMsgCopyAttr(raw, field.tag, &number, sizeof number) != TAGMSG_OK) continue;
        if (field.isUnsigned) {
            *record.*field.member = static_cast<std::uint32_t>(number);
        } else {
            *record.*field.member = number;
        }
    }
    return record;
}

}  // namespace stats
