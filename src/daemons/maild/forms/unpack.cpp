#include "daemons/maild/forms/unpack.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "daemons/maild/forms/blocks.h"
#include "text/ascii.h"

namespace {

// In small letters. Names of codings, as headers and data addresses have them, and the beginnings
// of formats that hold packed bytes as text.
constexpr std::string_view kWords[] = {"base64", "uuencode", "x-uue",    "binhex",
                                       "yenc",   "=ybegin",  "\nbegin ", "%pdf",
                                       "{\\rt",  "bzh",      "rar!",     "(this file must"};
constexpr std::string_view kQuoted = "quoted-printable";
constexpr std::size_t kLongestWord = 16;

// A byte that no text has.
bool IsBinary(char c) { return IsControl(c) && c != '\t' && c != '\r' && c != '\n'; }

class Search {
  public:
    // False at the first thing found.
    bool Take(char c) {
        if (IsBinary(c)) return false;
        if (escape_ > 0) return Escaped(c);
        if (c == '=') {
            escape_ = 1;
            held_ = -1;
        }
        return Match(c);
    }

  private:
    // Behind a '=': a line end joins two lines of quoted-printable, two digits are a byte.
    bool Escaped(char c) {
        if (c == '\r' && escape_ == 1) return true;
        if (c == '\n' && escape_ == 1) {
            escape_ = 0;
            window_.pop_back();  // the '='
            return true;
        }
        const int digit = HexDigit(c);
        if (digit < 0 || escape_ == 2) escape_ = 0;
        if (digit >= 0 && held_ < 0) {
            held_ = digit;
            escape_ = 2;
        } else if (digit >= 0) {
            const auto byte = static_cast<char>(held_ << 4 | digit);
            odd_ = odd_ || IsBinary(byte) || (byte > ' ' && byte < 0x7F && byte != '=');
        }
        if (c == '=') {
            escape_ = 1;
            held_ = -1;
        }
        return Match(c);
    }
    bool Match(char c) {
        window_ += FoldCase(c);
        if (window_.size() > 2 * kLongestWord) window_.erase(0, kLongestWord);
        const std::string_view seen = window_;
        for (const std::string_view word : kWords) {
            if (word.back() == window_.back() && seen.ends_with(word)) return false;
        }
        quoted_ = quoted_ || (window_.back() == kQuoted.back() && seen.ends_with(kQuoted));
        return !(quoted_ && odd_);
    }

    std::string window_ = "\n";  // the last bytes, in small letters, lines joined
    int escape_ = 0;             // digits expected: 1 the first, 2 the second
    int held_ = -1;
    bool odd_ = false;     // an escape that text doesn't need
    bool quoted_ = false;  // quoted-printable is named: escapes count
};

}  // namespace

bool CouldUnpack(int file) {
    Search search;
    // What can't be read could.
    return !ReadBlocks(file, 0, [&](std::string_view text, off_t) {
        return std::all_of(text.begin(), text.end(), [&](char c) { return search.Take(c); });
    });
}
