// Inside antispam/: SpamAssassin's spamd: SYMBOLS with the message, which answers
//
//   SPAMD/1.1 0 EX_OK
//   Content-length: 18
//   Spam: True ; 1000.0 / 5.0
//
//   GTUBE,NO_RECEIVED
//
// It hears nothing of the envelope but what stands in the message.
#pragma once

#include "daemons/maild/antispam/headed.h"
#include "daemons/maild/antispam/opinion.h"
#include "daemons/maild/engine/connection.h"

namespace maild {

// On an open connection whose end of time is set.
SpamOpinion AskSpamd(Connection& connection, const SpamQuestion& question);
SpamOpinion ReadSpamd(const HeadedReply& reply);

}  // namespace maild
