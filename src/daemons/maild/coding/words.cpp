#include "daemons/maild/coding/words.h"

#include <algorithm>
#include <optional>

#include "daemons/maild/coding/text.h"
#include "text/ascii.h"
#include "text/base64.h"

namespace maild {

namespace {

using namespace std::string_view_literals;

struct Word {
    std::string charset;  // in small letters
    bool base64 = false;
    std::string_view text;
    std::size_t length = 0;  // from "=?" to "?="
};

std::optional<Word> WordAt(std::string_view text) {
    const std::size_t charset = text.find('?', 2);
    if (charset == std::string_view::npos || charset + 2 >= text.size() || text[charset + 2] != '?')
        return {};
    const char coding = FoldCase(text[charset + 1]);
    if (coding != 'b' && coding != 'q') return {};
    const std::size_t begin = charset + 3;
    const std::size_t end = text.find("?="sv, begin);
    if (end == std::string_view::npos) return {};
    Word word;
    word.charset = LowerCase(text.substr(2, charset - 2));
    word.charset.resize(std::min(word.charset.find('*'), word.charset.size()));
    word.base64 = coding == 'b';
    word.text = text.substr(begin, end - begin);
    word.length = end + 2;
    return word;
}

void DecodeQuoted(std::string_view text, std::string& out) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '=' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (low >= 0) {
            out += static_cast<char>(high << 4 | low);
            i += 2;
        } else {
            out += text[i] == '_' ? ' ' : text[i];
        }
    }
}

// Bytes of words that follow one another in one charset.
class Bytes {
  public:
    void Take(const Word& word, std::string& out) {
        if (word.charset != charset_) Flush(out);
        charset_ = word.charset;
        if (!word.base64) {
            bits_ = 0;
            DecodeQuoted(word.text, bytes_);
            return;
        }
        for (const char c : word.text) {
            const int digit = Base64Digit(c);
            if (c == '=') bits_ = 0;
            if (digit < 0) continue;
            value_ = (value_ << 6 | static_cast<unsigned>(digit)) & 0xFFFFFFU;
            bits_ += 6;
            if (bits_ < 8) continue;
            bits_ -= 8;
            bytes_ += static_cast<char>(value_ >> bits_ & 0xFFU);
        }
    }
    void Flush(std::string& out) {
        const auto take = [&out](std::string_view text) { out += text; };
        if (!bytes_.empty()) {
            Utf8Stream stream(charset_);
            stream.Write(std::as_bytes(std::span<const char>(bytes_)), take);
            stream.Finish(take);
        }
        bytes_.clear();
        bits_ = 0;
    }

  private:
    std::string charset_;
    std::string bytes_;
    unsigned value_ = 0;
    int bits_ = 0;
};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string DecodeLoosely(std::string_view all) {
    std::string_view text = all.substr(0, kMostDecoded);
    const std::string_view rest = all.substr(text.size());
    const bool ascii = std::all_of(all.begin(), all.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii && text.find("=?"sv) == std::string_view::npos) return std::string(all);
    std::string out;
    Bytes bytes;
    bool behindWord = false;
    while (!text.empty()) {
        const std::size_t at = std::min(text.find("=?"sv), text.size());
        const std::string_view between = text.substr(0, at);
        const std::optional<Word> word =
            at < text.size() ? WordAt(text.substr(at)) : std::optional<Word>();
        // Blanks between two words belong to neither.
        if (!word || !std::all_of(between.begin(), between.end(), IsBlank) || !behindWord) {
            bytes.Flush(out);
            out += between;
        }
        text.remove_prefix(at);
        behindWord = word.has_value();
        if (word) {
            bytes.Take(*word, out);
            text.remove_prefix(word->length);
        } else if (!text.empty()) {
            bytes.Flush(out);
            out += text.substr(0, 2);
            text.remove_prefix(2);
        }
    }
    bytes.Flush(out);
    out += rest;
    Utf8Stream stream("");
    std::string whole;
    const auto take = [&whole](std::string_view piece) { whole += piece; };
    stream.Write(std::as_bytes(std::span<const char>(out)), take);
    stream.Finish(take);
    return whole;
}

}  // namespace maild
