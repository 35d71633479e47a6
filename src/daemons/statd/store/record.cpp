#include "daemons/statd/store/record.h"

#include <cstring>

#include "tagmsg/owned.h"

namespace stats {

std::size_t Record::Size() const {
    std::size_t size = sizeof(Record);
    for (const TextField& field : kTextFields) {
        if (const auto& text = this->*field.member) size += text->size();
    }
    return size;
}

std::optional<Record> ParseRecord(const void* data, std::uint32_t length) {
    OwnedMessage message;
    if (message.Parse(data, length) != TAGMSG_OK) return std::nullopt;

    std::optional<Record> record(std::in_place);
    const void* value = nullptr;
    for (const TextField& field : kTextFields) {
        if (TagMsgPeekAttr(message.root, field.tag, &value) != TAGMSG_OK || value == nullptr)
            continue;
        const auto* text = static_cast<const char*>(value);
        (*record.*field.member).emplace(text, strnlen(text, kTextLimit));
    }
    for (const NumberField& field : kNumberFields) {
        std::int32_t number = 0;
        if (TagMsgCopyAttr(message.root, field.tag, &number, sizeof number) != TAGMSG_OK) continue;
        if (field.isUnsigned) {
            *record.*field.member = static_cast<std::uint32_t>(number);
        } else {
            *record.*field.member = number;
        }
    }
    return record;
}

}  // namespace stats
