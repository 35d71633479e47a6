// coding/: bodies as they lie in a file, and what readers make of them: lines without the dots of
// the way, transfer codings and charsets undone, block by block.
//
// This header: where a body lies.
#pragma once

namespace maild {

// Octets of the stored file, dots and all, from `begin` up to before `end`.
struct Range {
    long long begin = 0;
    long long end = 0;
    bool operator==(const Range&) const = default;
};
// Of what doesn't lie in the stored file as it is.
inline constexpr Range kNowhere{-1, -1};

// How a part's body is coded for the way.
enum class Coding { kPlain, kBase64, kQuotedPrintable, kUuencode, kYenc, kUnknown };

// How a file has to be read.
enum class Dots {
    kPlain,   // as it is
    kStuffed  // a dot at a line's start was put there for the way, where CR LF stands before it
};

// Where a part's body lies as it is coded: the stored file, or a temporary one within the walk.
struct BodySource {
    int file = -1;
    Dots dots = Dots::kPlain;
    Range body;  // its end is known from End on only
};

}  // namespace maild
