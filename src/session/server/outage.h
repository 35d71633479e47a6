// What is said where the real mail server can't be had: to the client, and in the log.
#pragma once

#include <string>
#include <string_view>

#include "session/server/connector.h"
#include "session/server/server_address.h"

// The client's only reply, with its line end: what is wrong, without a word on where.
std::string OutageReply(std::string_view greetingName, ConnectFailure failure);

// Tells the log what is wrong with a server, at most once a minute of each: one that is down would
// fill it. Any thread.
void LogOutage(const ServerAddress& server, std::string_view what, std::string_view reason);
