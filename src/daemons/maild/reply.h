// Inside maild/: the answers to the proxy, as its scan client reads them, and to `vtmaild status`.
#pragma once

#include <span>
#include <vector>

#include "daemons/maild/engine/engine.h"
#include "daemons/maild/verdict/finding.h"
#include "tagmsg/tagmsg.h"

// Fills in the root of an answer: what becomes of the message, each section that has found
// something to do, and in an entry why, for the proxy's log. False without memory, and for what is
// put off: the request then gets a reply without data, which counts as a scan that failed.
bool BuildAnswer(TagMsgNode* root, std::span<const maild::Finding> findings,
                 const maild::Decision& decision);
// The message may go on, nothing else is said.
bool BuildForward(TagMsgNode* root);

// The answer about the engines (scanclient/engines.h).
bool BuildStates(TagMsgNode* root, const std::vector<EngineState>& states);
