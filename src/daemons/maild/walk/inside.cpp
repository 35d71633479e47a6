// Coded containers: messages and multiparts that some readers decode first.
#include "daemons/maild/coding/readings.h"
#include "daemons/maild/coding/scratch.h"
#include "daemons/maild/walk/walker.h"

namespace maild {

namespace {

// Coded containers within coded containers, and what all of them may come to.
constexpr int kMostNesting = 4;
constexpr long long kMostDecodedTimes = 16;

}  // namespace

// A coded message or multipart, which was walked as it is before: now as some would decode it.
void Walker::LookInside(const Level& level) {
    if (!state_.Going()) return;
    Scratch scratch;
    const Range& body = level.part.source.body;
    state_.decoded += body.end - body.begin;
    if (nesting_ >= kMostNesting || state_.decoded > kMostDecodedTimes * (state_.size + 65536))
        return state_.Stop(WalkEnd::kTooComplex, "coded messages within coded messages");
    if (!DecodeBody(level.part.source, Reading{level.part.coding}, scratch) || scratch.Rewind() < 0)
        return state_.Stop(WalkEnd::kCantRead, "can't decode a message in the message");
    Walker inner(state_, scratch.Rewind(), Dots::kPlain, &level.part, nesting_ + 1);
    if (level.part.kind == PartKind::kMessage) {
        inner.WalkMessage({0, scratch.Size()});
    } else {
        inner.WalkBody({0, scratch.Size()});
    }
}

}  // namespace maild
