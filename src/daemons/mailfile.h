// A spooled message as the scanner should see it.
#pragma once

#include "platform/file.h"

// The message without dot-stuffing, in a nameless file in memory, with a header in front by which
// the engine knows a message for what it is. Empty on failure. The descriptor is at the start.
// `unstuffed` says whether a dot was taken out: if not, the copy holds all that the file holds.
platform::File MakeScanCopy(int spool, bool& unstuffed);
// Whether the engine would take the file as it stands for a message, and no line of it is
// dot-stuffed: then it can be scanned without a copy. False on doubt.
bool ScannableAsItIs(int spool);
