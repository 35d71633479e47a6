// A dialogue without a server: for clients whose mail can't be taken now, and health checks.
#pragma once

#include <string_view>

#include "session/dialogue/dialogue.h"
#include "session/peers.h"

// From the greeting to the client's QUIT; whatever moves mail gets the refusal, a reply with its
// line end.
void AnswerWithoutServer(Peers& peers, CommandSource& commands, std::string_view refusal);
