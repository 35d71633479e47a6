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
    kUnclosedMultipart,
    kNulInHeaders,
    kBareCrInHeaders,
    kFolding,
    kUnknownEncoding,
    kEncodedMultipart,
    kOddBase64,
    kHiddenCoding,
    kPartialMessage,
    kExternalBody,
    kHeaderBreak,
};

struct Ambiguity {
    Ambiguous what;
    std::string place;  // of the part, as Part has it
};

// In words for the log and the statistics: "two boundary parameters".
const char* Words(Ambiguous what);

}  // namespace maild
