// Inside coding/: one coded body as different readers undo it.
#pragma once

#include <vector>

#include "daemons/maild/coding/decoder.h"
#include "daemons/maild/coding/scratch.h"
#include "daemons/maild/coding/source.h"

namespace maild {

// What a reader does with a body.
struct Reading {
    Coding coding = Coding::kPlain;
    Filler filler = Filler::kAnew;  // of base64, as the next two
    Foreign foreign = Foreign::kIgnore;
    bool eachLine = false;  // each line is a coded text of its own
    bool keepOdd = true;    // of quoted-printable, as the next one
    bool keepBlanks = false;
};

// All the ways in which readers undo a coding that is broken or declared oddly: of base64 those of
// base64 alone, of quoted-printable those of all others; with odd headers about it, all.
std::vector<Reading> ReadingsOf(Coding coding, bool oddHeaders);

// Writes the body as it is read so behind what the file has. Of uuencode and yEnc all files of the
// body, one behind the other. False if it can't be done.
bool DecodeBody(const BodySource& source, const Reading& reading, Scratch& scratch);

}  // namespace maild
