#include "daemons/maild/walk/ambiguity.h"

#include <cstddef>
#include <iterator>

namespace maild {

namespace {

// In the order of Ambiguous. What counts, and why readers differ:
constexpr AmbiguousKind kKinds[] = {
    // Content-Type headers with different values: some take the first one, some the last.
    {Ambiguous::kTwoContentTypes, "two Content-Type headers", false},
    // The same with the coding of the body.
    {Ambiguous::kTwoTransferEncodings, "two Content-Transfer-Encoding headers", false},
    // One parameter (boundary, name, filename) twice with different values.
    {Ambiguous::kTwoParameters, "a parameter twice", false},
    // A multipart whose boundary is missing or empty, or never met though there is text: some guess
    // it from the first line that looks like one, some show all as text.
    {Ambiguous::kNoBoundary, "a multipart without a boundary", false},
    // A multipart with the boundary of one around it: whose part begins?
    {Ambiguous::kSharedBoundary, "a boundary that is used twice", false},
    // A line that is a boundary and goes on: some compare only its beginning.
    {Ambiguous::kBoundaryTail, "a boundary with text behind it", false},
    // Parts behind the boundary that ends them: some have stopped reading.
    {Ambiguous::kPartsBehindEnd, "parts behind the end of a multipart", false},
    // A multipart that ends with the one around it. Bounces cut off what they return.
    {Ambiguous::kUnclosedMultipart, "a multipart without its end", true},
    // For some the line, or all the headers, end there.
    {Ambiguous::kNulInHeaders, "a NUL in headers", false},
    // A line end for some.
    {Ambiguous::kBareCrInHeaders, "a bare CR in headers", false},
    // Headers that say what a body is and are folded so that some don't see them, or see other
    // values: behind a line of blanks, with a blank before the colon, within a boundary, or in the
    // first line of all.
    {Ambiguous::kFolding, "headers folded in an odd way", false},
    // A line without a colon beside such headers: for some the body begins there.
    {Ambiguous::kHeaderBreak, "a line among headers that is none", false},
    // A coding that isn't known but resembles one that is: some guess, some don't undo it.
    {Ambiguous::kUnknownEncoding, "an unknown Content-Transfer-Encoding", false},
    // A coded multipart or message: forbidden, some undo it all the same. Careless programs declare
    // a coding for the whole that is only that of its text.
    {Ambiguous::kEncodedContainer, "a coded multipart or message", true},
    // Base64 with fillers or foreign characters in its midst, as from a list that adds a footer.
    {Ambiguous::kOddCoding, "broken base64", true},
    // uuencode or yEnc within a text: some show a file.
    {Ambiguous::kHiddenCoding, "a file in a text", true},
    // A piece of a message, for the reader to put together.
    {Ambiguous::kPartialMessage, "a piece of a message", false},
    // A part that the reader is to fetch.
    {Ambiguous::kExternalBody, "a part that lies elsewhere", false},
};

}  // namespace

const AmbiguousKind& KindOf(Ambiguous what) { return kKinds[static_cast<std::size_t>(what)]; }

}  // namespace maild
