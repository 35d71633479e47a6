#include <cstdlib>
#include <cstring>

#include "tagmsg/flat.h"
#include "tagmsg/tree.h"

namespace {

std::uint8_t* WriteAttr(std::uint8_t* at, const TagMsgAttr& attr) {
    at = WriteWord(at, attr.tag);
    if (TagType(attr.tag) == kTagTypeInteger)
        return WriteWord(at, static_cast<std::uint32_t>(attr.value.number));
    if (TagType(attr.tag) != kTagTypeText) return at;
    const char* text = attr.value.text == nullptr ? "" : attr.value.text;
    const std::size_t size = std::strlen(text) + 1;
    at = WriteWord(at, static_cast<std::uint32_t>(size));
    std::memcpy(at, text, size);
    return at + size;
}

}  // namespace

int TagMsgSerialize(TagMsgNode* root, void** buffer, std::uint32_t* length) {
    if (root == nullptr || buffer == nullptr || length == nullptr) return TAGMSG_BAD;
    const std::uint32_t total = root->size + kFlatWord;
    auto* flat = static_cast<std::uint8_t*>(std::calloc(1, total));
    if (flat == nullptr) return TAGMSG_NO_MEMORY;
    std::uint8_t* at = WriteWord(flat, total);
    bool first = true;
    for (TagMsgNode* node = root; node != nullptr; node = TagMsgNext(node, first)) {
        if (!first) continue;
        at = WriteWord(at, static_cast<std::uint32_t>(node->childCount));
        // The list as it is, which after a parse of odd counts may differ from the count read.
        std::uint32_t attrs = 0;
        for (const TagMsgAttr* attr = node->attrs; attr != nullptr; attr = attr->next) ++attrs;
        at = WriteWord(at, attrs);
        at = WriteWord(at, node->parent != nullptr && node->nextSibling != nullptr ? 1 : 0);
        for (const TagMsgAttr* attr = node->attrs; attr != nullptr; attr = attr->next)
            at = WriteAttr(at, *attr);
    }
    *buffer = flat;
    *length = static_cast<std::uint32_t>(at - flat);
    return TAGMSG_OK;
}
