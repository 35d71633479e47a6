// Inside quarantine/: a stored message as its reader has it, without the dots of the way.
#pragma once

#include <string>

#include "daemons/maild/coding/source.h"
#include "platform/file.h"

namespace quarantine {

struct Copied {
    bool whole = false;  // false: it can't be read, or not be written
    long long size = 0;
    std::string subject;  // decoded, in UTF-8; empty if there is none
};

// Writes the message behind what `to` has.
Copied CopyMessage(int file, maild::Dots dots, platform::File& to);

}  // namespace quarantine
