// Inside actions/: what a tag puts on a message.
//
// What a finding wants put in stands in its target, a line each: `Name: value` is a header,
// `Subject: text` or anything else goes in front of the subject.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "daemons/maild/actions/edits.h"
#include "daemons/maild/actions/partmap.h"
#include "daemons/maild/verdict/finding.h"

namespace maild {

struct Tag {
    std::vector<std::string> headers;  // whole lines, without their ends
    std::string prefix;                // of the subject, in UTF-8
};
// Of all findings that tag, each text once; and a header X-Vantrel-Finding for each of them that
// says what was found. Controls and line ends of strangers are gone.
Tag TagOf(std::span<const Finding> findings);

// Headers go in front of all that there is. The subject's text gets the prefix unless it begins
// with it; a message without a subject gets one. `message` may be null: then its headers are not
// known, and the subject stands in front with the other headers. False if the file can't be read.
bool AddTag(const Tag& tag, const PlacedPart* message, int file, Dots dots, Edits& edits);

}  // namespace maild
