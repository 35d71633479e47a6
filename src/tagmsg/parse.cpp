#include <cstring>
#include <new>

#include "tagmsg/flat.h"
#include "tagmsg/tree.h"

namespace {

constexpr std::uintptr_t kAtNode = 0;
constexpr std::uintptr_t kMakeChild = 1;
constexpr std::uintptr_t kFinished = 2;
constexpr char kLoadError[] = "(load-error)";

// The bytes that are left. They come from another process: nothing in them is believed before it is
// checked.
struct Reader {
    const std::uint8_t* at;
    std::uint32_t left;

    std::uint32_t Word(std::uint32_t offset) const { return ReadWord(at + offset); }
    void Skip(std::uint32_t count) {
        at += count;
        left -= count;
    }
};

int ReadAttr(TagMsgNode* node, Reader& reader) {
    if (reader.left < kFlatAttrHeader) return TAGMSG_BAD;
    auto* attr = new (std::nothrow) TagMsgAttr{};
    if (attr == nullptr) return TAGMSG_NO_MEMORY;
    attr->tag = reader.Word(0);
    if (TagType(attr->tag) == kTagTypeInteger) {
        attr->value.number = static_cast<std::int32_t>(reader.Word(4));
        reader.Skip(kFlatAttrHeader);
    } else if (TagType(attr->tag) == kTagTypeText) {
        const auto length = static_cast<std::int32_t>(reader.Word(4));
        const auto size = static_cast<std::uint32_t>(length);
        const bool good = length > 0 && reader.left - kFlatAttrHeader >= size &&
                          reader.at[kFlatAttrHeader + size - 1] == 0;
        const char* text =
            good ? reinterpret_cast<const char*>(reader.at + kFlatAttrHeader) : kLoadError;
        attr->value.text = strdup(text);
        if (attr->value.text == nullptr) {
            delete attr;
            return TAGMSG_NO_MEMORY;
        }
        reader.Skip(good ? kFlatAttrHeader + size : kFlatAttrHeader);
    } else {
        reader.Skip(kFlatWord);
    }
    TagMsgPushAttr(node, attr);
    return TAGMSG_OK;
}

int ReadNode(TagMsgNode* node, Reader& reader) {
    if (reader.left < kFlatNodeHeader) return TAGMSG_BAD;
    const auto children = static_cast<std::int32_t>(reader.Word(0));
    node->attrCount = static_cast<std::int32_t>(reader.Word(4));
    if (reader.Word(8) == 0 && node->parent != nullptr) node->parent->cursor = kFinished;
    reader.Skip(kFlatNodeHeader);
    for (std::int32_t i = 0; i < node->attrCount; ++i) {
        if (const int status = ReadAttr(node, reader); status != TAGMSG_OK) return status;
    }
    node->childCount = 0;
    node->cursor = children <= 0 ? kFinished : kMakeChild;
    return TAGMSG_OK;
}

// Attaches an empty node; its header is counted with it.
int MakeChild(TagMsgNode* parent, TagMsgNode** child) {
    const int status = TagMsgCreate(child);
    if (status != TAGMSG_OK) return status;
    (*child)->root = parent->root;
    parent->root->size += kFlatNodeHeader;
    TagMsgLink(parent, *child);
    return TAGMSG_OK;
}

int ReadTree(TagMsgNode* root, Reader& reader) {
    TagMsgNode* node = root;
    while (node != nullptr) {
        int status = TAGMSG_OK;
        if (node->cursor == kAtNode) {
            status = ReadNode(node, reader);
        } else if (node->cursor == kMakeChild) {
            status = MakeChild(node, &node);
        } else {
            node->cursor = 0;
            node = node->parent;
        }
        if (status != TAGMSG_OK) return status;
    }
    return TAGMSG_OK;
}

}  // namespace

int TagMsgParse(TagMsgNode** root, const void* buffer, std::int32_t length) {
    if (root == nullptr) return TAGMSG_BAD;
    *root = nullptr;
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    if (bytes == nullptr || length < static_cast<std::int32_t>(kFlatWord) ||
        ReadWord(bytes) != static_cast<std::uint32_t>(length))
        return TAGMSG_BAD;
    TagMsgNode* made = nullptr;
    if (const int status = TagMsgCreate(&made); status != TAGMSG_OK) return status;
    Reader reader{bytes + kFlatWord, static_cast<std::uint32_t>(length) - kFlatWord};
    const int status = ReadTree(made, reader);
    if (status != TAGMSG_OK) {
        TagMsgFree(made, 1, 1);
        return status;
    }
    *root = made;
    return TAGMSG_OK;
}
