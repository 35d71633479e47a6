#include "daemons/maild/coding/decoder.h"

#include <algorithm>

#include "text/ascii.h"
#include "text/base64.h"

namespace maild {

namespace {

constexpr std::uint8_t kBlank = 64;
constexpr std::uint8_t kOther = 65;
constexpr std::size_t kMostBlanks = 4096;
constexpr std::size_t kGroups = 32;  // of base64, that are appended at once

std::array<std::uint8_t, 256> MakeDigits() {
    std::array<std::uint8_t, 256> digits{};
    for (std::size_t i = 0; i < digits.size(); ++i) {
        const int digit = Base64Digit(static_cast<char>(i));
        digits[i] = digit >= 0 ? static_cast<std::uint8_t>(digit) : kOther;
    }
    for (const char blank : {'\r', '\n', ' ', '\t'})
        digits[static_cast<unsigned char>(blank)] = kBlank;
    return digits;
}
const std::array<std::uint8_t, 256> kDigits = MakeDigits();

std::uint8_t DigitOf(char c) { return kDigits[static_cast<unsigned char>(c)]; }

std::string_view WithoutEnd(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    return line;
}

}  // namespace

void Base64Decoder::Write(std::string_view text, std::string& out) {
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at < end) {
        // Whole groups, nearly always.
        if (digits_ == 0 && !ended_ && !filled_) {
            char block[kGroups * 3];
            char* to = block;
            while (end - at >= 4 && to < block + sizeof block) {
                const std::uint32_t a = DigitOf(at[0]);
                const std::uint32_t b = DigitOf(at[1]);
                const std::uint32_t c = DigitOf(at[2]);
                const std::uint32_t d = DigitOf(at[3]);
                if (((a | b | c | d) & 64U) != 0) break;
                const std::uint32_t group = a << 18 | b << 12 | c << 6 | d;
                to[0] = static_cast<char>(group >> 16);
                to[1] = static_cast<char>(group >> 8);
                to[2] = static_cast<char>(group);
                to += 3;
                at += 4;
            }
            out.append(block, static_cast<std::size_t>(to - block));
            if (at == end) return;
            if (to == block + sizeof block) continue;
        }
        const char c = *at++;
        const std::uint8_t digit = DigitOf(c);
        if (digit == kBlank) {
            lineEnded_ = lineEnded_ || (c == '\n' && digits_ > 0);
            continue;
        }
        if (ended_) {
            odd_ = true;
            continue;
        }
        if (digit == kOther) {
            TakeOther(c, out);
            continue;
        }
        odd_ = odd_ || filled_;
        cut_ = cut_ || lineEnded_;
        group_ = group_ << 6 | digit;
        if (++digits_ == 4) Flush(out);
    }
}

void Base64Decoder::TakeOther(char c, std::string& out) {
    if (c == '=') {
        filled_ = true;
        if (filler_ == Filler::kIgnore) return;
        Flush(out);
        ended_ = filler_ == Filler::kEnd;
        return;
    }
    odd_ = true;
    if (foreign_ == Foreign::kUrl && (c == '-' || c == '_')) {
        group_ = group_ << 6 | (c == '-' ? 62U : 63U);
        if (++digits_ == 4) Flush(out);
    } else if (foreign_ == Foreign::kEnd) {
        Flush(out);
        ended_ = true;
    }
}

// The bytes of the group so far.
void Base64Decoder::Flush(std::string& out) {
    const std::uint32_t left = group_ << (6 * (4 - digits_));
    for (int i = 0; i + 1 < digits_; ++i) out += static_cast<char>(left >> (16 - 8 * i));
    group_ = 0;
    digits_ = 0;
    lineEnded_ = false;
}

bool Base64Decoder::HasForeign(std::string_view line) {
    return std::any_of(line.begin(), line.end(),
                       [](char c) { return DigitOf(c) == kOther && c != '='; });
}

void Base64Decoder::Finish(std::string& out) {
    odd_ = odd_ || digits_ == 1;
    Flush(out);
}

void QuotedDecoder::Write(std::string_view text, std::string& out) {
    for (std::size_t at = 0; at < text.size();) {
        if (held_.empty() && blanks_.empty()) {
            std::size_t plain = at;
            while (plain < text.size() && text[plain] != '=' && text[plain] != ' ' &&
                   text[plain] != '\t')
                ++plain;
            out.append(text, at, plain - at);
            at = plain;
            if (at == text.size()) return;
        }
        Take(text[at++], out);
    }
}

void QuotedDecoder::Take(char c, std::string& out) {
    if (held_.empty()) {
        if (c == ' ' || c == '\t') {
            blanks_ += c;
            if (blanks_.size() < kMostBlanks) return;
            out += blanks_;  // more than anybody would hold back
            blanks_.clear();
            return;
        }
        const bool atEnd = c == '\r' || c == '\n';
        blanksDropped_ = blanksDropped_ || (atEnd && !blanks_.empty());
        if (!atEnd || keepBlanks_) out += blanks_;
        blanks_.clear();
        if (c == '=') {
            held_ = c;
        } else {
            out += c;
        }
        return;
    }
    // "=", "=H", "= ", "=\r" so far.
    if (c == '\n') {
        odd_ = odd_ || held_.find_first_of(" \t") != std::string::npos;
        if (held_.size() == 2 && HexDigit(held_[1]) >= 0) {
            GiveUp(out);
            out += c;
        }
        held_.clear();
        return;
    }
    const bool first = held_.size() == 1;
    const bool blank = c == ' ' || c == '\t' || c == '\r';
    if (first && (HexDigit(c) >= 0 || blank)) {
        held_ += c;
        return;
    }
    if (!first && HexDigit(held_[1]) >= 0 && HexDigit(c) >= 0) {
        out += static_cast<char>(HexDigit(held_[1]) << 4 | HexDigit(c));
        held_.clear();
        return;
    }
    if (!first && HexDigit(held_[1]) < 0 && blank) {
        if (held_.size() < 1024) held_ += c;
        return;
    }
    GiveUp(out);
    Take(c, out);
}

void QuotedDecoder::GiveUp(std::string& out) {
    odd_ = true;
    out.append(held_, keepOdd_ ? 0 : 1);
    held_.clear();
}

void QuotedDecoder::Finish(std::string& out) {
    if (held_.size() > 1 && HexDigit(held_[1]) >= 0) GiveUp(out);
    held_.clear();
    out += blanks_;
    blanks_.clear();
}

bool UuDecoder::Begins(std::string_view line) {
    line = WithoutEnd(line);
    if (line.size() < 9 || !line.starts_with("begin")) return false;
    line.remove_prefix(5);
    if (line.starts_with("-base64")) line.remove_prefix(7);
    if (line.empty() || line[0] != ' ') return false;
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::size_t digits = line.find_first_not_of("01234567");
    return digits != std::string_view::npos && digits >= 3 && digits <= 5 && line[digits] == ' ';
}

bool UuDecoder::TakeLine(std::string_view line, std::string& out) {
    if (Begins(line)) {
        inFile_ = true;
        base64_ = line.starts_with("begin-");
        return true;
    }
    line = WithoutEnd(line);
    if (inFile_ && base64_) {
        // Programs write whole groups in each line.
        inFile_ = !line.starts_with("====");
        Base64Decoder decoder;
        decoder.Write(line, out);
        decoder.Finish(out);
        return false;
    }
    if (!inFile_ || line.empty()) return false;
    const auto value = [](char c) { return static_cast<unsigned>(c - ' ') & 0x3FU; };
    if (line == "end") {
        inFile_ = false;
        return false;
    }
    std::size_t left = value(line[0]);
    for (std::size_t at = 1; left > 0 && at < line.size(); at += 4) {
        // Blanks at a line's end are lost on the way.
        const auto digit = [&](std::size_t i) { return i < line.size() ? value(line[i]) : 0U; };
        const unsigned group =
            digit(at) << 18 | digit(at + 1) << 12 | digit(at + 2) << 6 | digit(at + 3);
        for (const int shift : {16, 8, 0}) {
            if (left > 0) {
                out += static_cast<char>(group >> shift);
                --left;
            }
        }
    }
    return false;
}

bool YencDecoder::Begins(std::string_view line) { return line.starts_with("=ybegin "); }

bool YencDecoder::TakeLine(std::string_view line, std::string& out) {
    if (Begins(line)) {
        inFile_ = true;
        escaped_ = false;
        return true;
    }
    if (!inFile_ || line.starts_with("=ypart")) return false;
    if (line.starts_with("=yend")) {
        inFile_ = false;
        return false;
    }
    for (const char c : WithoutEnd(line)) {
        if (!escaped_ && c == '=') {
            escaped_ = true;
            continue;
        }
        out += static_cast<char>(static_cast<unsigned char>(c) - (escaped_ ? 106 : 42));
        escaped_ = false;
    }
    return false;
}

}  // namespace maild
