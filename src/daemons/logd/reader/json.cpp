#include <algorithm>

#include "daemons/logd/reader/entry.h"
#include "text/ascii.h"

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, std::uint32_t code) {
    const auto add = [&out](std::uint32_t byte) { out += static_cast<char>(byte); };
    if (code < 0x80) {
        add(code);
    } else if (code < 0x800) {
        add(0xC0U | code >> 6U);
        add(0x80U | (code & 0x3FU));
    } else {
        if (code < 0x10000) {
            add(0xE0U | code >> 12U);
        } else {
            add(0xF0U | code >> 18U);
            add(0x80U | (code >> 12U & 0x3FU));
        }
        add(0x80U | (code >> 6U & 0x3FU));
        add(0x80U | (code & 0x3FU));
    }
}

class Reader {
  public:
    explicit Reader(std::string_view text) : rest_(text) {}

    bool Take(char c) {
        SkipBlanks();
        if (!rest_.starts_with(c)) return false;
        rest_.remove_prefix(1);
        return true;
    }
    bool AtEnd() {
        SkipBlanks();
        return rest_.empty();
    }
    bool TakeString(std::string& out) {
        if (!Take('"')) return false;
        while (!rest_.empty()) {
            const std::size_t plain = std::min(rest_.find_first_of("\"\\"), rest_.size());
            out += rest_.substr(0, plain);
            rest_.remove_prefix(plain);
            if (rest_.empty()) return false;
            const char mark = rest_.front();
            rest_.remove_prefix(1);
            if (mark == '"') return true;
            if (!TakeEscape(out)) return false;
        }
        return false;
    }
    bool TakeNumber(std::string& out) {
        SkipBlanks();
        const auto* end = std::find_if_not(rest_.begin(), rest_.end(),
                                           [](char c) { return IsDigit(c) || c == '-'; });
        out.assign(rest_.begin(), end);
        rest_.remove_prefix(out.size());
        return !out.empty();
    }

  private:
    void SkipBlanks() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r"), rest_.size()));
    }
    // Four digits; nothing else gives a number that high.
    std::uint32_t TakeHex() {
        std::uint32_t code = 0;
        if (rest_.size() < 4) return 0x10000;
        for (const char c : rest_.substr(0, 4)) {
            if (HexDigit(c) < 0) return 0x10000;
            code = code << 4U | static_cast<std::uint32_t>(HexDigit(c));
        }
        rest_.remove_prefix(4);
        return code;
    }
    bool TakeCode(std::string& out) {
        std::uint32_t code = TakeHex();
        if (code > 0xFFFF) return false;
        if (code >= 0xD800 && code < 0xE000) {  // half of a character: two make one
            const bool first = code < 0xDC00 && rest_.starts_with("\\u");
            std::uint32_t second = 0;
            if (first) {
                rest_.remove_prefix(2);
                second = TakeHex();
            }
            code = second >= 0xDC00 && second < 0xE000
                       ? 0x10000 + ((code - 0xD800) << 10U) + (second - 0xDC00)
                       : kReplacement;
        }
        AppendUtf8(out, code);
        return true;
    }
    bool TakeEscape(std::string& out) {
        constexpr std::string_view kLetters = "\"\\/bfnrt";
        constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
        if (rest_.empty()) return false;
        const char letter = rest_.front();
        rest_.remove_prefix(1);
        if (letter == 'u') return TakeCode(out);
        const std::size_t which = kLetters.find(letter);
        if (which == std::string_view::npos) return false;
        out += kMeanings[which];
        return true;
    }

    std::string_view rest_;
};

}  // namespace

std::optional<std::vector<LogField>> ParseJsonObject(std::string_view text) {
    Reader reader(text);
    std::vector<LogField> fields;
    if (!reader.Take('{')) return std::nullopt;
    do {
        LogField field;
        if (!reader.TakeString(field.name) || !reader.Take(':')) return std::nullopt;
        if (!reader.TakeString(field.value)) {
            field.number = true;
            if (!field.value.empty() || !reader.TakeNumber(field.value)) return std::nullopt;
        }
        fields.push_back(std::move(field));
    } while (reader.Take(','));
    if (!reader.Take('}') || !reader.AtEnd()) return std::nullopt;
    return fields;
}
