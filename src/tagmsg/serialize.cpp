#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "tagmsg/flat.h"
#include "tagmsg/owned.h"
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

// The node stands on the stack, and its attributes borrow the caller's texts.
int TagMsgFlatten(std::span<const TagMsgField> fields, OwnedFlatForm& flat) {
    const std::unique_ptr<TagMsgAttr[]> attrs(new (std::nothrow) TagMsgAttr[fields.size()]);
    if (attrs == nullptr) return TAGMSG_NO_MEMORY;
    TagMsgNode node{};
    node.root = &node;
    node.size = kFlatNodeHeader;
    TagMsgAttr* attr = attrs.get();
    for (const TagMsgField& field : fields) {
        if (field.value == nullptr) continue;
        if (TagType(field.tag) > kTagTypeInteger) return TAGMSG_BAD;
        attr->tag = field.tag;
        if (TagType(field.tag) == kTagTypeInteger)
            std::memcpy(&attr->value.number, field.value, sizeof attr->value.number);
        else
            attr->value.text = static_cast<char*>(const_cast<void*>(field.value));
        TagMsgPushAttr(&node, attr++);
    }
    return TagMsgSerialize(&node, &flat.data, &flat.length);
}
