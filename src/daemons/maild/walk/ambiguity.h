// Inside maild/: structure that receivers read in different ways, so that what one of them shows is
// not what another one has scanned. Sloppy mail that all read alike is not among it.
#pragma once

#include <string>

namespace maild {

enum class Ambiguous {
    kTwoContentTypes,
    kTwoTransferEncodings,
    kTwoParameters,
    kNoBoundary,
    kSharedBoundary,
    kBoundaryTail,
    kPartsBehindEnd,
    kUnclosedMultipart,
    kNulInHeaders,
    kBareCrInHeaders,
    kFolding,
    kHeaderBreak,
    kUnknownEncoding,
    kEncodedContainer,
    kOddCoding,
    kHiddenCoding,
    kPartialMessage,
    kExternalBody,
};

struct Ambiguity {
    Ambiguous what;
    std::string place;  // of the part, as Part has it
};

// What is known of a kind; the table in ambiguity.cpp says what exactly counts.
struct AmbiguousKind {
    Ambiguous what;
    const char* words;  // for the log: "two boundary parameters"
    // Honest programs are known to make it, or its makers' mistakes. It passes: what the readers
    // may make of it is scanned, each reading by itself. What is not sloppy has been made to be
    // read differently, or is as good as never met, and the setting WhenAmbiguous decides.
    bool sloppy;
};
const AmbiguousKind& KindOf(Ambiguous what);

}  // namespace maild
