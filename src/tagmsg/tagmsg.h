// tagmsg/: tagged messages, the payload of all traffic with the local daemons: a tree of nodes with
// attributes, each a 32-bit tag and a text or a 32-bit integer, and its flat byte form (flat form:
// flat.h).
//
// Plain records and free functions, no global state. A tree belongs to one thread: even two reading
// walks must not overlap. Results are 0 or a negative status unless said otherwise.
#pragma once

#include <cstdint>

inline constexpr int TAGMSG_OK = 0;
inline constexpr int TAGMSG_NO_MEMORY = -3;
inline constexpr int TAGMSG_BAD = -5;  // a null argument, a bad type, a bad index, a bad flat form
inline constexpr int TAGMSG_NOT_FOUND = -11;  // no such attribute; a negative index

inline constexpr std::uint32_t kTagTypeText = 0;
inline constexpr std::uint32_t kTagTypeInteger = 1;

// One attribute. Type (low byte of tag) 1: `number`; type 0: `text`, an owned heap copy, null if a
// flat form gave none.
struct TagMsgAttr {
    std::uint32_t tag;
    union {
        std::int32_t number;
        char* text;
    } value;
    TagMsgAttr* next;
};

// One node; a message is its root. attrs runs newest first, the children oldest first.
struct TagMsgNode {
    std::uint32_t size;  // root only: flat size of the whole tree without the leading length word
    std::int32_t childCount;
    std::int32_t attrCount;
    TagMsgAttr* attrs;
    TagMsgNode* parent;
    TagMsgNode* root;
    TagMsgNode* firstChild;
    TagMsgNode* nextSibling;
    TagMsgNode*
        lastChild;  // held by a first child: tail of the list that it heads; null while it is alone
    std::uintptr_t cursor;  // 0 at rest; a walk's place or the parser's state
};

int TagMsgCreate(TagMsgNode** root);
// Adds an attribute at the head. value: the text for type 0 (copied), a std::int32_t for type 1. A
// null value adds nothing and gives 0.
int TagMsgAddAttr(TagMsgNode* node, std::uint32_t tag, const void* value);
// Appends a node that is not yet attached; the tree owns it from then on.
int TagMsgAddChild(TagMsgNode* parent, TagMsgNode* child);
// Copies the first attribute of that tag: a text without terminator, at most size characters; an
// integer as min(4, size) bytes.
int TagMsgCopyAttr(TagMsgNode* node, std::uint32_t tag, void* buffer, std::uint32_t size);
// *value points into the message: to the text, or to the integer. Valid as long as the node.
int TagMsgPeekAttr(TagMsgNode* node, std::uint32_t tag, const void** value);
// A fresh heap copy (malloc) that the caller frees: the text with its terminator, or 4 bytes.
int TagMsgDupAttr(TagMsgNode* node, std::uint32_t tag, void** value);
// The number of children, by walking the list; -1 for null.
int TagMsgChildCount(TagMsgNode* node);
int TagMsgGetChild(TagMsgNode* node, TagMsgNode** child, std::int32_t index);
// The flat form in one malloc'd buffer that the caller frees.
int TagMsgSerialize(TagMsgNode* root, void** buffer, std::uint32_t* length);
// Builds a tree from a flat form; the buffer is not kept. *root is null on failure.
int TagMsgParse(TagMsgNode** root, const void* buffer, std::int32_t length);
// Both flags: frees the whole tree. Only self: the node and its attributes. Null is ignored.
void TagMsgFree(TagMsgNode* node, int children, int self);
std::uint32_t TagMsgSize(TagMsgNode* node);
