// The sender blacklist over every reading of a path.
#pragma once

#include "session/address/path.h"

namespace asfilters {
class CASFilters;
}

// CheckSender of each reading of the sender. The strictest result wins, with its text in denyText
// (denySize bytes); 1 and 2 are as CheckSender's, anything else passes. The address becomes lower
// case as CheckSender makes it.
int CheckSenderReadings(asfilters::CASFilters& filters, MailPath& sender, char* denyText,
                        unsigned denySize);
