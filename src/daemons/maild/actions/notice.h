// Inside actions/: the text that stands in the place of a part that was taken out.
#pragma once

#include <string>
#include <vector>

#include "daemons/maild/actions/edits.h"
#include "daemons/maild/actions/partmap.h"

namespace maild {

// What of a part is told to whoever reads the message.
struct Removal {
    const PlacedPart* part = nullptr;
    std::vector<const Finding*> why;
};

// Takes the part out: a text takes its place, which names it, says why, and by which id (of the
// quarantine, which has the message as it came) to ask for it. Of a message that is nothing but
// this part the headers stay, but those that describe its body. False if the file can't be read.
bool AddRemoval(const Removal& removal, const std::string& id, int file, long long size, Dots dots,
                Edits& edits);

}  // namespace maild
