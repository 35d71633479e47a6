// Coded containers: messages and multiparts that some readers decode first.
#include "daemons/maild/walk/scratch.h"
#include "daemons/maild/walk/walker.h"

namespace maild {

namespace {

// Coded containers within coded containers, and what all of them may come to.
constexpr int kMostNesting = 4;
constexpr long long kMostDecodedTimes = 4;

// Decodes a range of a file into a scratch file. False if it can't be done.
bool DecodeRange(const BodySource& source, Coding coding, Scratch& scratch) {
    LineReader reader(source.file, source.dots, source.body);
    Base64Decoder base64;
    QuotedDecoder quoted;
    UuDecoder uu;
    YencDecoder yenc;
    std::string out;
    Line line;
    while (reader.Next(line)) {
        out.clear();
        if (coding == Coding::kBase64) base64.Write(line.text, out);
        if (coding == Coding::kQuotedPrintable) quoted.Write(line.text, out);
        if (coding == Coding::kUuencode) uu.TakeLine(line.text, out);
        if (coding == Coding::kYenc) yenc.TakeLine(line.text, out);
        if (!scratch.Write(out)) return false;
    }
    out.clear();
    base64.Finish(out);
    quoted.Finish(out);
    return scratch.Write(out) && !reader.Failed();
}

}  // namespace

// A coded message or multipart, which was walked as it is before: now as some would decode it.
void Walker::LookInside(const Level& level) {
    if (!state_.Going()) return;
    Scratch scratch;
    const Range& body = level.part.source.body;
    state_.decoded += body.end - body.begin;
    if (nesting_ >= kMostNesting || state_.decoded > kMostDecodedTimes * (state_.size + 65536))
        return state_.Stop(WalkEnd::kTooComplex, "coded messages within coded messages");
    if (!DecodeRange(level.part.source, level.part.coding, scratch) || scratch.Rewind() < 0)
        return state_.Stop(WalkEnd::kCantRead, "can't decode a message in the message");
    Walker inner(state_, scratch.Rewind(), Dots::kPlain, &level.part, nesting_ + 1);
    if (level.part.kind == PartKind::kMessage) {
        inner.WalkMessage({0, scratch.Size()});
    } else {
        inner.WalkBody({0, scratch.Size()}, level.boundaries,
                       level.part.type == "multipart/digest");
    }
}

}  // namespace maild
