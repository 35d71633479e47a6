// Inside walk/: the state of one walk. A stack of the parts that have begun, and what the next line
// may be: a header, a boundary of any of them, or a line of the innermost one's body.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/coding/decoder.h"
#include "daemons/maild/coding/lines.h"
#include "daemons/maild/walk/headers.h"
#include "daemons/maild/walk/walk.h"

namespace maild {

// What a walk shares with those over the coded messages in it.
struct WalkState {
    const WalkLimits& limits;
    std::span<PartSink* const> sinks;
    WalkResult& result;
    long long decoded = 0;  // bytes of coded containers, all together
    long long size = 0;     // of the message

    bool Going() const { return result.end == WalkEnd::kWhole; }
    void Stop(WalkEnd end, std::string why);
    void Note(Ambiguous what, const std::string& place);
    // Whether there is time left.
    bool InTime();
};

class Walker {
  public:
    // `container`: the coded message or multipart whose decoded bytes the file has; null for the
    // stored message itself.
    Walker(WalkState& state, int file, Dots dots, const Part* container, int nesting);

    // Walks a message from its headers on.
    void WalkMessage(Range range);
    // Walks the body of the container, a multipart.
    void WalkBody(Range range);

  private:
    struct Level {
        Part part;
        int children = 0;
        bool closed = false;  // its end was met
        bool text = false;    // there is something in it besides its parts
        bool doubt = false;   // in front of its first part, of which some may make another thing
        bool silent = false;  // the sinks don't hear of it
    };
    enum class Where { kHeaders, kBody };

    void Lines(Range range);
    void HeaderLine(const Line& line);
    void BodyLine(const Line& line);
    void Content(const Line& line);
    bool Boundary(const Line& line);
    void EnterPart(long long at, bool digest);
    void EndHeaders(long long bodyBegin);
    void EndLevels(std::size_t keep, long long end);
    void EndLeaf();
    void LookInside(const Level& level);
    void Decode(std::string_view text);
    void Emit();
    void Note(Ambiguous what, const std::string& place);
    std::string PlaceOf(const Part& part) const;
    bool IsReturned() const;
    bool IsCutOff(std::size_t keep) const;
    Range Stored(Range range) const;

    WalkState& state_;
    const int file_;
    const Dots dots_;
    const Part* const container_;
    const int nesting_;

    std::vector<Level> levels_;
    Where where_ = Where::kBody;
    HeaderBlock headers_;
    long long entityBegin_ = 0;
    // Of the leaf whose body goes by:
    Base64Decoder base64_;
    QuotedDecoder quoted_;
    UuDecoder uu_;
    YencDecoder yenc_;
    std::string out_;          // decoded, not handed on yet
    std::string_view held_;    // a line end that may belong to a boundary
    long long heldBegin_ = 0;  // where it stands in the file
    unsigned sinceClock_ = 0;  // bytes
};

}  // namespace maild
