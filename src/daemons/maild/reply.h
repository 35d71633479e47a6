// Inside maild/: the answers to the proxy, as its scan client reads them.
#pragma once

#include <string>

#include "daemons/maild/settings.h"
#include "tagmsg/tagmsg.h"

// They fill in the root of an answer. False without memory: the request then gets a reply without
// data, which counts as a scan that failed.
bool BuildForward(TagMsgNode* root);
// What VirusAction says.
bool BuildInfected(TagMsgNode* root, const Settings& settings, const std::string& signature);
// Refused whatever VirusAction says.
bool BuildRefused(TagMsgNode* root, const std::string& reason);
