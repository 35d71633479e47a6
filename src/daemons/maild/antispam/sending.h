// Inside antispam/: a message on its way to who is asked.
#pragma once

#include "daemons/maild/antispam/opinion.h"
#include "daemons/maild/engine/connection.h"

namespace maild {

// Bytes that the message has without the dots of the way; -1 if it can't be read.
long long CountBytes(int file, Dots dots, long long size);
// Sends what is in front and the message. False if the other end doesn't take it all, which it may
// have answered all the same.
bool SendMessage(Connection& connection, const std::string& front, const SpamQuestion& question);

}  // namespace maild
