// Inside tagmsg/: what its files share about trees.
#pragma once

#include "tagmsg/tagmsg.h"

// Bytes that the attribute takes in the flat form.
std::uint32_t TagMsgAttrFlatSize(const TagMsgAttr& attr);
// Puts the attribute at the head of the node's list and counts its size; attrCount is the caller's.
void TagMsgPushAttr(TagMsgNode* node, TagMsgAttr* attr);
// Makes the child the last one of the parent; its root and its size are the caller's.
void TagMsgLink(TagMsgNode* parent, TagMsgNode* child);
// One step of the walk that keeps its place in the nodes: the next child, or the parent when there
// is none left. `first` says whether that node is met for the first time. All cursors are zero
// again at the walk's end.
TagMsgNode* TagMsgNext(TagMsgNode* node, bool& first);
