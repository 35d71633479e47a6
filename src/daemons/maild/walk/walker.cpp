#include "daemons/maild/walk/walker.h"

#include <algorithm>
#include <optional>

#include "text/ascii.h"

namespace maild {

namespace {

constexpr std::size_t kEmitAt = 32768;
constexpr unsigned kLookAtClock = 1 << 20;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool AllBlank(std::string_view text) { return std::all_of(text.begin(), text.end(), IsBlank); }

bool LooksOfHeader(std::string_view line) {
    return EqualIgnoringCase(line.substr(0, 7), "content");
}

// A file in a text, or a line end to some.
bool MayHideParts(const Line& line) {
    return (line.begins && (line.text.starts_with("begin") || line.text.starts_with("=ybegin"))) ||
           line.Content().find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos;
}

bool IsCoded(Coding coding) { return coding != Coding::kPlain && coding != Coding::kUnknown; }

}  // namespace

void WalkState::Stop(WalkEnd end, std::string why) {
    if (!Going()) return;
    result.end = end;
    result.why = std::move(why);
}

void WalkState::Note(Ambiguous what, const std::string& place) {
    const auto same = [what](const Ambiguity& each) { return each.what == what; };
    if (std::none_of(result.ambiguities.begin(), result.ambiguities.end(), same))
        result.ambiguities.push_back({what, place});
}

bool WalkState::InTime() {
    if (std::chrono::steady_clock::now() < limits.end) return true;
    Stop(WalkEnd::kTimedOut, "the message's parts were not walked in time");
    return false;
}

Walker::Walker(WalkState& state, int file, Dots dots, const Part* container, int nesting)
    : state_(state), file_(file), dots_(dots), container_(container), nesting_(nesting) {}

void Walker::WalkMessage(Range range) {
    EnterPart(range.begin, false);
    Lines(range);
}

void Walker::WalkBody(Range range) {
    Level level;
    level.part = *container_;
    level.silent = true;
    levels_.push_back(std::move(level));
    where_ = Where::kBody;
    Lines(range);
}

void Walker::Lines(Range range) {
    LineReader reader(file_, dots_, range);
    Line line;
    while (state_.Going() && reader.Next(line)) {
        sinceClock_ += static_cast<unsigned>(line.text.size()) + 64;
        if (sinceClock_ > kLookAtClock) {
            sinceClock_ = 0;
            if (!state_.InTime()) break;
        }
        if (where_ == Where::kHeaders) {
            HeaderLine(line);
        } else {
            BodyLine(line);
        }
    }
    if (reader.Failed()) state_.Stop(WalkEnd::kCantRead, "can't read the message");
    if (where_ == Where::kHeaders && state_.Going()) EndHeaders(range.end);
    if (state_.Going() && !levels_.empty()) Decode(held_);
    held_ = {};
    EndLevels(0, range.end);
}

// The part that begins has headers from here on.
void Walker::EnterPart(long long at, bool digest) {
    where_ = Where::kHeaders;
    headers_ = HeaderBlock(digest);
    entityBegin_ = at;
    held_ = {};
}

void Walker::HeaderLine(const Line& line) {
    const std::string_view content = line.Content();
    if (line.begins && content.empty()) return EndHeaders(line.range.end);
    if (line.begins && content.starts_with("--") && Boundary(line)) return;
    bool few = true;
    if (line.begins) {
        few = headers_.AddLine(content);
    } else {
        headers_.AddToLine(content);
    }
    if (!few || headers_.Bytes() > state_.limits.maxHeaderBytes)
        state_.Stop(WalkEnd::kTooComplex, "more headers than MaxHeaderBytes");
}

void Walker::EndHeaders(long long bodyBegin) {
    Declared declared = headers_.Read();
    Part& part = declared.part;
    if (declared.tooLong)
        return state_.Stop(WalkEnd::kTooComplex, "a part has headers that are too long");
    if (++state_.result.parts > state_.limits.maxParts)
        return state_.Stop(WalkEnd::kTooComplex, "more parts than MaxParts");
    part.depth = static_cast<int>(levels_.size()) + (container_ == nullptr ? 0 : container_->depth);
    if (part.depth >= state_.limits.maxDepth)
        return state_.Stop(WalkEnd::kTooComplex, "parts deeper than MaxDepth");
    const bool isMessage = levels_.empty() || levels_.back().part.kind == PartKind::kMessage;
    part.place = PlaceOf(part);
    if (isMessage) {
        const std::string around = levels_.empty()
                                       ? (container_ == nullptr ? "" : container_->place)
                                       : levels_.back().part.place;
        const std::vector<HeaderField> fields = headers_.Fields();
        for (PartSink* sink : state_.sinks) sink->Headers(fields, around);
    }
    const Part* around = levels_.empty() ? container_ : &levels_.back().part;
    part.inSigned = part.inSigned ||
                    (around != nullptr && (around->inSigned || around->type == "multipart/signed"));
    part.inEncrypted =
        part.inEncrypted ||
        (around != nullptr && (around->inEncrypted || around->type == "multipart/encrypted"));
    part.ownRange = container_ == nullptr;
    part.whole = Stored({entityBegin_, bodyBegin});
    part.body = Stored({bodyBegin, bodyBegin});
    part.source = {file_, dots_, {bodyBegin, bodyBegin}};
    for (const Ambiguous what : declared.ambiguities) Note(what, part.place);
    for (const std::string& boundary : part.boundaries) {
        for (const Level& level : levels_) {
            if (std::find(level.part.boundaries.begin(), level.part.boundaries.end(), boundary) !=
                    level.part.boundaries.end() &&
                !level.closed)
                state_.Note(Ambiguous::kSharedBoundary, part.place);
        }
    }
    // A multipart that can't be taken apart is a text to those who show it.
    if (part.kind == PartKind::kMultipart && part.boundaries.empty()) part.kind = PartKind::kLeaf;
    if (part.kind == PartKind::kLeaf) {
        base64_ = Base64Decoder();
        quoted_ = QuotedDecoder();
        uu_ = UuDecoder();
        yenc_ = YencDecoder();
        out_.clear();
    }
    Level level;
    level.part = std::move(part);
    levels_.push_back(std::move(level));
    for (PartSink* sink : state_.sinks) sink->Begin(levels_.back().part);
    where_ = Where::kBody;
    held_ = {};
    if (levels_.back().part.kind == PartKind::kMessage) EnterPart(bodyBegin, false);
}

// What was decoded without need is hardly ever a message at all, and looks odd then.
void Walker::Note(Ambiguous what, const std::string& place) {
    const bool ofForm = what == Ambiguous::kNulInHeaders || what == Ambiguous::kBareCrInHeaders ||
                        what == Ambiguous::kFolding || what == Ambiguous::kHeaderBreak;
    if (container_ == nullptr || !ofForm) state_.Note(what, place);
}

std::string Walker::PlaceOf(const Part& part) const {
    if (levels_.empty() || levels_.back().part.kind == PartKind::kMessage) {
        std::string around = levels_.empty() ? (container_ == nullptr ? "" : container_->place)
                                             : levels_.back().part.place;
        if (part.kind == PartKind::kMultipart) return around;
        return around.empty() ? "1" : around + ".1";
    }
    const Level& level = levels_.back();
    const std::string number = std::to_string(level.children);
    return level.part.place.empty() ? number : level.part.place + "." + number;
}

// Whether the innermost part is the whole of a message in a message. Who returns one may write what
// the server has left of it under its headers: a multipart's, and words.
bool Walker::IsReturned() const {
    return levels_.size() > 1 ? levels_[levels_.size() - 2].part.kind == PartKind::kMessage
                              : container_ != nullptr;
}

// Whether the innermost part ends because a message ends in which a multipart around it is open;
// all levels but so many end.
bool Walker::IsCutOff(std::size_t keep) const {
    bool open = false;
    for (std::size_t i = levels_.size() - 1; i-- > keep;) {
        open = open || (levels_[i].part.kind == PartKind::kMultipart && !levels_[i].closed);
        if (open && levels_[i].part.kind == PartKind::kMessage) return true;
    }
    return false;
}

Range Walker::Stored(Range range) const { return container_ == nullptr ? range : container_->body; }

void Walker::BodyLine(const Line& line) {
    if (line.begins && line.text.starts_with("--") && Boundary(line)) return;
    if (levels_.empty()) return;
    Level& level = levels_.back();
    if (level.part.kind == PartKind::kLeaf) return Content(line);
    level.text = level.text || !AllBlank(line.Content());
    level.part.oddPreamble =
        level.part.oddPreamble || (level.children == 0 && line.begins && LooksOfHeader(line.text));
    level.doubt = level.doubt || level.part.oddPreamble || MayHideParts(line);
    held_ = line.ends ? line.text.substr(line.text.size() - line.EndLength()) : std::string_view();
    heldBegin_ = line.range.end - static_cast<long long>(held_.size());
    held_ = held_.size() == 2 ? "\r\n" : held_.empty() ? "" : "\n";
}

void Walker::Content(const Line& line) {
    const Coding coding = levels_.back().part.coding;
    if (coding == Coding::kBase64) {
        Decode(line.text);
    } else {
        if (!held_.empty()) Decode(held_);
        Decode(line.Content());
    }
    held_ = !line.ends ? "" : line.EndLength() == 2 ? "\r\n" : "\n";
    heldBegin_ = line.range.end - static_cast<long long>(held_.size());
}

// Of the innermost part, a leaf.
void Walker::Decode(std::string_view text) {
    const Part& part = levels_.back().part;
    if (part.kind != PartKind::kLeaf) return;
    switch (part.coding) {
        case Coding::kBase64:
            base64_.Write(text, out_);
            break;
        case Coding::kQuotedPrintable:
            quoted_.Write(text, out_);
            break;
        case Coding::kUuencode:
            uu_.TakeLine(text, out_);
            break;
        case Coding::kYenc:
            yenc_.TakeLine(text, out_);
            break;
        case Coding::kPlain:
        case Coding::kUnknown:
            out_ += text;
    }
    if (out_.size() >= kEmitAt) Emit();
}

void Walker::Emit() {
    if (out_.empty()) return;
    const std::span<const std::byte> bytes = std::as_bytes(std::span<const char>(out_));
    for (PartSink* sink : state_.sinks) sink->Data(bytes);
    out_.clear();
}

// Whether the line is a boundary of one of the parts that are open; then what it ends has ended.
bool Walker::Boundary(const Line& line) {
    std::string_view content = line.Content();
    content.remove_prefix(2);
    std::optional<std::size_t> found;
    bool closes = false;
    bool tail = false;
    for (std::size_t i = levels_.size(); i-- > 0 && !found;) {
        for (const std::string& boundary : levels_[i].part.boundaries) {
            if (!content.starts_with(boundary)) continue;
            const std::string_view rest = content.substr(boundary.size());
            closes = rest.starts_with("--") && AllBlank(rest.substr(2));
            if (closes || AllBlank(rest)) {
                found = i;
                break;
            }
            tail = true;
        }
    }
    // Of a line that is cut by the block's length, or of a text that happens to begin so.
    if (!found) {
        if (tail) state_.Note(Ambiguous::kBoundaryTail, levels_.back().part.place);
        return false;
    }
    if (where_ == Where::kHeaders) EndHeaders(line.range.begin);
    if (!state_.Going()) return true;
    const long long end = held_.empty() ? line.range.begin : heldBegin_;
    EndLevels(*found + 1, end);
    Level& level = levels_[*found];
    // Some write the end twice, which begins nothing.
    if (level.closed && !closes) state_.Note(Ambiguous::kPartsBehindEnd, level.part.place);
    where_ = Where::kBody;
    held_ = {};
    if (closes) {
        level.closed = true;
        return true;
    }
    ++level.children;
    EnterPart(line.range.end, level.part.type == "multipart/digest");
    return true;
}

// Ends the innermost parts, all but so many.
void Walker::EndLevels(std::size_t keep, long long end) {
    while (levels_.size() > keep) {
        Level& level = levels_.back();
        const bool atEnd = keep == 0;
        level.part.cutOff = IsCutOff(keep);
        if (level.part.kind == PartKind::kLeaf) EndLeaf();
        if (level.part.kind == PartKind::kMultipart && !level.silent) {
            if (level.children == 0 && level.text && (level.doubt || !IsReturned()))
                state_.Note(Ambiguous::kNoBoundary, level.part.place);
            if (level.children > 0 && !level.closed && !atEnd)
                state_.Note(Ambiguous::kUnclosedMultipart, level.part.place);
        }
        const long long bodyEnd = std::max(end, level.part.source.body.begin);
        level.part.source.body.end = bodyEnd;
        if (container_ == nullptr) level.part.whole.end = level.part.body.end = bodyEnd;
        if (level.part.kind != PartKind::kLeaf && IsCoded(level.part.coding) && !level.silent)
            LookInside(level);
        if (!level.silent) {
            for (PartSink* sink : state_.sinks) sink->End(level.part);
        }
        levels_.pop_back();
    }
}

void Walker::EndLeaf() {
    Part& part = levels_.back().part;
    part.oddCoding = part.oddHeaders;
    if (part.coding == Coding::kBase64) {
        base64_.Finish(out_);
        if (base64_.Odd()) state_.Note(Ambiguous::kOddCoding, part.place);
        part.cutGroups = !part.oddCoding && !base64_.Odd() && base64_.Cut();
        part.oddCoding = part.oddCoding || base64_.Odd() || base64_.Cut();
    }
    if (part.coding == Coding::kQuotedPrintable) {
        quoted_.Finish(out_);
        part.oddCoding = part.oddCoding || quoted_.Odd() || (quoted_.Blanks() && !part.isText);
    }
    part.oddCoding =
        part.oddCoding || part.coding == Coding::kUuencode || part.coding == Coding::kYenc;
    Emit();
}

}  // namespace maild
