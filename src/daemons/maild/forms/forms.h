// forms/: what a receiver may make of a message.
//
// This header: the forms that a stored message can take on its way to a reader, as the engine is
// to see them.
//
// A message that came by DATA lies in its spool file as on the wire, and goes to the server like
// that. There a dot at the start of a line is taken away, and servers differ in what starts a line
// (what stands behind CR LF; behind a bare LF as well; behind a bare CR as well) and in the dot
// (any one; a doubled one only). A server sticks to its own choice for a whole message. So these
// forms cover every receiver: as stored, and for each set of line ends {CR LF}, {CR LF, LF}, {CR
// LF, CR}, {all three} unstuffed in both ways. A bare CR that ends a line for a server is a line
// end for the reader too: those forms have CR LF in its place, since the engine knows no other line
// ends.
//
// A message that came by BDAT is delivered as stored. A server behind may send it on by DATA: it
// puts dots in front, and the next one takes dots away. If the first has fewer line ends than the
// second, the dots behind the others are lost: the forms are as stored, and unstuffed behind bare
// LF, bare CR, or both. (The other way round there are dots more than before, which makes no
// attachment readable that was none.)
//
// Forms that come out equal are scanned once. That is told from what the message holds, without
// making them: nearly every message has one form, one with stuffed dots has two.
#pragma once

#include <vector>

#include "platform/file.h"

enum class Transfer { kUnknown = 0, kData = 1, kChunks = 2 };

// What the dots at line starts stand behind. The start of the message counts as kCrLf.
enum LineEnd : unsigned { kCrLf, kLf, kCr };
// Bits of a set of dots: those behind a line end which are followed by another dot, or are not.
constexpr unsigned SingleDot(LineEnd end) { return 1U << (2 * end); }
constexpr unsigned DoubledDot(LineEnd end) { return 2U << (2 * end); }

// What one pass over the stored message has found.
struct Survey {
    unsigned dots = 0;      // bits of SingleDot and DoubledDot
    bool bareCr = false;    // a CR without a LF behind it
    bool known = false;     // the engine takes it for mail as it stands
    bool indented = false;  // begins with a blank or an empty line
    // Where the first line begins that may be the start of a coded archive (encrypted.h); -1: none.
    long long firstArchive = -1;
};
// False if the file can't be read. Any thread, as all here.
bool SurveyMessage(int spool, Survey& survey);

struct Form {
    unsigned dots = 0;        // these are taken away
    bool crEndsLine = false;  // bare CR becomes CR LF
    // Blanks and line ends at its start are left out: behind the header in front they would
    // continue it or end the headers, and some readers pass over them.
    bool fromFirstText = false;

    bool operator==(const Form&) const = default;
    bool AsStored() const { return dots == 0 && !crEndsLine && !fromFirstText; }
};
// The different forms; the first one is as stored.
std::vector<Form> FormsOf(const Survey& survey, Transfer transfer);

// A form in a nameless file in memory, with a header in front by which the engine knows a message:
// one that begins with any other header would be looked at as plain bytes, and a coded attachment
// would pass. Empty on failure. The descriptor is at the start.
platform::File MakeForm(int spool, const Form& form);
