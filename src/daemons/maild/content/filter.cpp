#include "daemons/maild/content/filter.h"

#include <algorithm>

#include "daemons/maild/coding/readings.h"
#include "daemons/maild/coding/words.h"
#include "daemons/maild/content/seen.h"
#include "daemons/maild/forms/blocks.h"
#include "daemons/maild/log.h"
#include "daemons/maild/verdict/ruled.h"
#include "text/ascii.h"

namespace maild {

namespace {

// Of one message, that a removal is told of.
constexpr std::size_t kMostPlaces = 100;
// Of texts that are read in several ways, all of them together: bytes.
constexpr long long kMostDecodedAgain = 64LL << 20;

}  // namespace

ContentFilter::ContentFilter(const ContentRules& rules, const Envelope& envelope,
                             std::chrono::steady_clock::time_point end)
    : rules_(rules), end_(end), states_(rules.rules.size()) {
    for (const ContentRule& rule : rules.rules) ofBodies_ = ofBodies_ || rule.places.OfBodies();
    Ask(envelope.sender, "the sender", "", [](const Places& places) { return places.sender; });
    for (std::string_view left = envelope.recipients; !left.empty();) {
        const std::size_t next = left.find(';');
        Ask(left.substr(0, next), "a recipient", "",
            [](const Places& places) { return places.recipient; });
        if (next == std::string_view::npos) break;
        left.remove_prefix(next + 1);
    }
}

template <typename Wanted>
void ContentFilter::Ask(std::string_view text, const std::string& where, const std::string& place,
                        const Wanted& wanted, bool first, bool last) {
    // One that removes is to find all parts.
    const std::size_t most = found_ ? *found_ + (Removes(*found_) ? 1 : 0) : rules_.rules.size();
    for (std::size_t i = 0; i < most; ++i) {
        const ContentRule& rule = rules_.rules[i];
        State& state = states_[i];
        if (state.skipped || !wanted(rule.places)) continue;
        if (std::chrono::steady_clock::now() > end_) {
            tooComplex_ = "the rules on content were not asked in time";
            return;
        }
        switch (rule.pattern->Find(text, matcher_, state.budget, first, last)) {
            case Match::kNo:
                break;
            case Match::kBeyond:
                state.skipped = true;
                // Nobody knows what else is to be taken out.
                if (found_ == i) Meet(i, where, "");
                LogOnce({.kind = kEventWarning,
                         .text = "the rule " + rule.name +
                                 " on content takes more time or memory than it may, and was "
                                 "skipped for a message"});
                break;
            case Match::kYes:
                return Meet(i, where, place);
        }
    }
}

void ContentFilter::Meet(std::size_t rule, const std::string& where, const std::string& place) {
    if (found_ != rule) met_.clear();
    found_ = rule;
    const bool known = std::any_of(met_.begin(), met_.end(), [&](const Met& each) {
        return each.place == place && each.stored != again_;
    });
    if (known || met_.size() > kMostPlaces) return;
    met_.push_back({where, met_.size() == kMostPlaces ? "" : place, !again_});
}

void ContentFilter::Headers(std::span<const HeaderField> fields, const std::string& place) {
    if (!place.empty()) return;  // of a message in the message
    for (const HeaderField& field : fields) {
        const std::string name = LowerCase(field.name);
        const auto wanted = [&name](const Places& places) {
            return (places.subject && name == "subject") ||
                   std::find(places.headers.begin(), places.headers.end(), name) !=
                       places.headers.end();
        };
        if (std::none_of(rules_.rules.begin(), rules_.rules.end(),
                         [&](const ContentRule& rule) { return wanted(rule.places); }))
            continue;
        const std::string seen = SeenText(field.decoded);
        const std::string loose = SeenText(DecodeLoosely(field.raw));
        Ask(seen, "the header " + field.name, "", wanted);
        if (loose != seen) Ask(loose, "the header " + field.name, "", wanted);
    }
}

void ContentFilter::Begin(const Part& part) {
    stream_.reset();
    visible_.reset();
    const bool text =
        part.kind == PartKind::kLeaf && (part.type.starts_with("text/") || part.isHtml);
    if (!text || !ofBodies_) return;
    stream_.emplace(part.charset);
    if (part.isHtml) visible_.emplace();
    open_ = part.place;
    text_ = {};
    html_ = {};
}

void ContentFilter::Data(std::span<const std::byte> bytes) {
    if (!stream_) return;
    stream_->Write(bytes, [this](std::string_view text) { Take(text); });
}

void ContentFilter::Take(std::string_view text) {
    if (visible_) {
        visible_->Write(text, text_.text);
        html_.text += text;
        if (html_.text.size() >= kWindow) Look(html_, &Places::html, "HTML", false);
    } else {
        text_.text += SeenText(text);
    }
    if (text_.text.size() >= kWindow) Look(text_, &Places::text, "text", false);
}

void ContentFilter::End(const Part& part) {
    if (!stream_ || part.kind != PartKind::kLeaf) return;
    EndText();
    if (part.oddCoding) LookAtReadings(part);
}

void ContentFilter::EndText() {
    stream_->Finish([this](std::string_view text) { Take(text); });
    if (visible_) {
        visible_->Finish(text_.text);
        Look(html_, &Places::html, "HTML", true);
    }
    Look(text_, &Places::text, "text", true);
    stream_.reset();
    visible_.reset();
}

// Readers undo its coding in different ways.
void ContentFilter::LookAtReadings(const Part& part) {
    for (const Reading& reading : ReadingsOf(part.coding, part.oddHeaders)) {
        decodedAgain_ += part.source.body.end - part.source.body.begin;
        if (decodedAgain_ > kMostDecodedAgain) {
            tooComplex_ = "more readings of its texts than are looked at";
            return;
        }
        Scratch decoded;
        Begin(part);
        const bool whole = DecodeBody(part.source, reading, decoded) && decoded.Rewind() >= 0 &&
                           ReadBlocks(decoded.Rewind(), 0, [this](std::string_view text, off_t) {
                               Data(std::as_bytes(std::span<const char>(text)));
                               return true;
                           });
        EndText();
        if (!whole) tooComplex_ = "a text can't be read in the ways that readers may";
    }
}

void ContentFilter::Look(Window& window, bool Places::*place, const char* where, bool last) {
    Ask(
        window.text, where, open_, [place](const Places& places) { return places.*place; },
        window.first, last);
    if (last) return;
    window.first = false;
    window.text.erase(0, window.text.size() - kOverlap);
    // No match begins within a character.
    std::size_t cut = 0;
    while (cut < window.text.size() &&
           (static_cast<unsigned char>(window.text[cut]) & 0xC0U) == 0x80)
        ++cut;
    window.text.erase(0, cut);
}

std::vector<Finding> ContentFilter::Findings() const {
    std::vector<Finding> findings;
    for (const Met& each : met_) {
        const ContentRule& rule = rules_.rules[*found_];
        findings.push_back(RuledFinding(Section::kContent, rule.action, rule.name,
                                        "found in " + each.where, rule.text));
        findings.back().part = each.place;
        if (!each.stored) findings.back().range = kNowhere;
    }
    return findings;
}

}  // namespace maild
