#include "tagmsg/tagmsg.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "tagmsg/flat.h"
#include "tagmsg/tree.h"

std::uint32_t TagMsgAttrFlatSize(const TagMsgAttr& attr) {
    switch (TagType(attr.tag)) {
        case kTagTypeText:
            return kFlatAttrHeader +
                   static_cast<std::uint32_t>(
                       attr.value.text == nullptr ? 0 : std::strlen(attr.value.text)) +
                   1;
        case kTagTypeInteger:
            return kFlatAttrHeader;
        default:
            return kFlatWord;
    }
}

void TagMsgPushAttr(TagMsgNode* node, TagMsgAttr* attr) {
    attr->next = node->attrs;
    node->attrs = attr;
    node->root->size += TagMsgAttrFlatSize(*attr);
}

void TagMsgLink(TagMsgNode* parent, TagMsgNode* child) {
    child->parent = parent;
    if (parent->firstChild == nullptr) {
        parent->firstChild = child;
    } else {
        TagMsgNode* head = parent->firstChild;
        (head->lastChild != nullptr ? head->lastChild : head)->nextSibling = child;
        head->lastChild = child;
    }
    ++parent->childCount;
}

TagMsgNode* TagMsgNext(TagMsgNode* node, bool& first) {
    auto* held = reinterpret_cast<TagMsgNode*>(node->cursor);
    TagMsgNode* next = held == nullptr ? node->firstChild : held->nextSibling;
    node->cursor = reinterpret_cast<std::uintptr_t>(next);
    first = next != nullptr;
    return next != nullptr ? next : node->parent;
}

namespace {

void FreeAttrs(TagMsgNode* node) {
    while (TagMsgAttr* attr = node->attrs) {
        node->attrs = attr->next;
        if (TagType(attr->tag) == kTagTypeText) std::free(attr->value.text);
        delete attr;
    }
}

std::uint32_t TreeSize(TagMsgNode* top) {
    std::uint32_t size = 0;
    bool first = true;
    for (TagMsgNode* node = top; node != nullptr; node = TagMsgNext(node, first)) {
        if (!first) continue;
        size += kFlatNodeHeader;
        for (const TagMsgAttr* attr = node->attrs; attr != nullptr; attr = attr->next)
            size += TagMsgAttrFlatSize(*attr);
    }
    return size;
}

int Find(TagMsgNode* node, std::uint32_t tag, TagMsgAttr** found) {
    if (node == nullptr || TagType(tag) > kTagTypeInteger) return TAGMSG_BAD;
    for (TagMsgAttr* attr = node->attrs; attr != nullptr; attr = attr->next) {
        if (attr->tag != tag) continue;
        *found = attr;
        return TAGMSG_OK;
    }
    return TAGMSG_NOT_FOUND;
}

}  // namespace

int TagMsgCreate(TagMsgNode** root) {
    if (root == nullptr) return TAGMSG_BAD;
    *root = new (std::nothrow) TagMsgNode{};
    if (*root == nullptr) return TAGMSG_NO_MEMORY;
    (*root)->root = *root;
    (*root)->size = kFlatNodeHeader;
    return TAGMSG_OK;
}

int TagMsgAddAttr(TagMsgNode* node, std::uint32_t tag, const void* value) {
    if (node == nullptr) return TAGMSG_BAD;
    if (value == nullptr) return TAGMSG_OK;
    if (TagType(tag) > kTagTypeInteger) return TAGMSG_BAD;
    auto* attr = new (std::nothrow) TagMsgAttr{};
    if (attr == nullptr) return TAGMSG_NO_MEMORY;
    attr->tag = tag;
    if (TagType(tag) == kTagTypeInteger) {
        std::memcpy(&attr->value.number, value, sizeof attr->value.number);
    } else {
        attr->value.text = strdup(static_cast<const char*>(value));
        if (attr->value.text == nullptr) {
            delete attr;
            return TAGMSG_NO_MEMORY;
        }
    }
    TagMsgPushAttr(node, attr);
    ++node->attrCount;
    return TAGMSG_OK;
}

int TagMsgAddChild(TagMsgNode* parent, TagMsgNode* child) {
    if (parent == nullptr || child == nullptr) return TAGMSG_BAD;
    // The child's own walk leaves it through its parent, which is still null.
    parent->root->size += TreeSize(child);
    TagMsgLink(parent, child);
    bool first = true;
    for (TagMsgNode* node = child; node != parent; node = TagMsgNext(node, first))
        node->root = parent->root;
    return TAGMSG_OK;
}

int TagMsgCopyAttr(TagMsgNode* node, std::uint32_t tag, void* buffer, std::uint32_t size) {
    TagMsgAttr* attr = nullptr;
    if (buffer == nullptr) return TAGMSG_BAD;
    if (const int status = Find(node, tag, &attr); status != TAGMSG_OK) return status;
    if (TagType(tag) == kTagTypeInteger) {
        std::memcpy(buffer, &attr->value.number, size < kFlatWord ? size : kFlatWord);
    } else if (attr->value.text != nullptr) {
        const std::size_t length = std::strlen(attr->value.text);
        std::memcpy(buffer, attr->value.text, length < size ? length : size);
    }
    return TAGMSG_OK;
}

int TagMsgPeekAttr(TagMsgNode* node, std::uint32_t tag, const void** value) {
    TagMsgAttr* attr = nullptr;
    if (value == nullptr) return TAGMSG_BAD;
    if (const int status = Find(node, tag, &attr); status != TAGMSG_OK) return status;
    *value = TagType(tag) == kTagTypeInteger ? static_cast<const void*>(&attr->value.number)
                                             : attr->value.text;
    return TAGMSG_OK;
}

int TagMsgDupAttr(TagMsgNode* node, std::uint32_t tag, void** value) {
    TagMsgAttr* attr = nullptr;
    if (value == nullptr) return TAGMSG_BAD;
    *value = nullptr;
    if (const int status = Find(node, tag, &attr); status != TAGMSG_OK) return status;
    if (TagType(tag) == kTagTypeInteger) {
        *value = std::calloc(1, kFlatWord);
        if (*value != nullptr) std::memcpy(*value, &attr->value.number, kFlatWord);
    } else {
        if (attr->value.text == nullptr) return TAGMSG_OK;
        *value = strdup(attr->value.text);
    }
    return *value == nullptr ? TAGMSG_NO_MEMORY : TAGMSG_OK;
}

int TagMsgChildCount(TagMsgNode* node) {
    if (node == nullptr) return -1;
    int count = 0;
    for (const TagMsgNode* child = node->firstChild; child != nullptr; child = child->nextSibling)
        ++count;
    return count;
}

int TagMsgGetChild(TagMsgNode* node, TagMsgNode** child, std::int32_t index) {
    if (node == nullptr || child == nullptr) return TAGMSG_BAD;
    if (index < 0) return TAGMSG_NOT_FOUND;
    if (node->firstChild == nullptr || index >= node->childCount) return TAGMSG_BAD;
    TagMsgNode* at = node->firstChild;
    while (index-- > 0) at = at->nextSibling;
    *child = at;
    return TAGMSG_OK;
}

void TagMsgFree(TagMsgNode* node, int children, int self) {
    if (node == nullptr) return;
    if (children != 0) {
        // Depth first without a stack: a node is freed when its parent's place moves past it.
        TagMsgNode* at = node;
        while (at != nullptr) {
            if (TagMsgNode* child = at->firstChild) {
                at = child;
                continue;
            }
            if (at == node) break;
            TagMsgNode* parent = at->parent;
            parent->firstChild = at->nextSibling;
            FreeAttrs(at);
            delete at;
            at = parent;
        }
        node->childCount = 0;
    }
    if (self != 0) {
        FreeAttrs(node);
        delete node;
    }
}

std::uint32_t TagMsgSize(TagMsgNode* node) { return node == nullptr ? 0 : node->root->size; }
