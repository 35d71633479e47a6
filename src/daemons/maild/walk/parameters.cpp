#include "daemons/maild/walk/parameters.h"

#include <gmime/gmime.h>

#include <memory>
#include <mutex>

#include "daemons/maild/coding/words.h"
#include "text/ascii.h"

namespace maild {

namespace {

void Prepare() {
    static std::once_flag once;
    std::call_once(once, g_mime_init);
}

struct Freed {
    void operator()(char* text) const { g_free(text); }
};
using OwnedText = std::unique_ptr<char, Freed>;

// Controls count as blanks: many readers' do.
bool IsBlank(char c) { return (c >= '\0' && c <= ' ') || c == '\x7F'; }

// Reads a structured value from its start.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool AtEnd() const { return at_ == text_.size(); }
    bool At(char c) const { return !AtEnd() && text_[at_] == c; }
    void SkipTo(char wanted) {
        while (!AtEnd() && !At(wanted)) Piece(nullptr);
    }
    void Skip() {
        if (!AtEnd()) ++at_;
    }
    // Up to one of the ends; quotes are taken away, comments and blanks around it left out.
    std::string Until(std::string_view ends) {
        std::string value;
        std::size_t kept = 0;
        while (!AtEnd() && ends.find(text_[at_]) == std::string_view::npos) {
            const bool quoted = text_[at_] == '"';
            Piece(&value);
            if (quoted || (!value.empty() && !IsBlank(value.back()))) kept = value.size();
        }
        value.resize(kept);
        return value;
    }

  private:
    // A quoted string, a comment, or one character.
    void Piece(std::string* out) {
        if (text_[at_] == '"') return Quoted(out);
        if (text_[at_] == '(') return Comment();
        if (out != nullptr && !(out->empty() && IsBlank(text_[at_]))) *out += text_[at_];
        ++at_;
    }
    void Quoted(std::string* out) {
        for (++at_; !AtEnd() && text_[at_] != '"'; ++at_) {
            if (text_[at_] == '\\' && at_ + 1 < text_.size()) ++at_;
            if (out != nullptr) *out += text_[at_];
        }
        Skip();
    }
    void Comment() {
        int depth = 0;
        for (; !AtEnd(); ++at_) {
            if (text_[at_] == '\\' && at_ + 1 < text_.size()) {
                ++at_;
            } else if (text_[at_] == '(') {
                ++depth;
            } else if (text_[at_] == ')' && --depth == 0) {
                ++at_;
                return;
            }
        }
    }

    const std::string_view text_;
    std::size_t at_ = 0;
};

}  // namespace

StructuredValue ParseStructured(std::string_view value) {
    Scanner scanner(value);
    StructuredValue parsed;
    parsed.main = LowerCase(scanner.Until(";"));
    std::erase_if(parsed.main, IsBlank);
    while (!scanner.AtEnd()) {
        scanner.Skip();
        std::string name = LowerCase(scanner.Until("=;"));
        std::erase_if(name, IsBlank);
        if (name.empty()) {
            scanner.SkipTo(';');
            continue;
        }
        parsed.parameters.push_back({std::move(name), ""});
        if (!scanner.At('=')) continue;
        scanner.Skip();
        parsed.parameters.back().value = scanner.Until(";");
    }
    return parsed;
}

std::string DecodeParameter(const std::string& value, bool disposition, const char* name) {
    Prepare();
    const char* found = nullptr;
    std::string decoded;
    if (disposition) {
        GMimeContentDisposition* parsed = g_mime_content_disposition_parse(nullptr, value.c_str());
        if (parsed == nullptr) return {};
        found = g_mime_content_disposition_get_parameter(parsed, name);
        if (found != nullptr) decoded = MakeUtf8(found);
        g_object_unref(parsed);
    } else {
        GMimeContentType* parsed = g_mime_content_type_parse(nullptr, value.c_str());
        if (parsed == nullptr) return {};
        found = g_mime_content_type_get_parameter(parsed, name);
        if (found != nullptr) decoded = MakeUtf8(found);
        g_object_unref(parsed);
    }
    return decoded;
}

std::string DecodeText(const std::string& text) {
    if (text.size() > kMostDecoded)
        return DecodeText(text.substr(0, kMostDecoded)) + MakeUtf8(text.substr(kMostDecoded));
    Prepare();
    const OwnedText decoded(g_mime_utils_header_decode_text(nullptr, text.c_str()));
    return decoded == nullptr ? MakeUtf8(text) : MakeUtf8(decoded.get());
}

std::string MakeUtf8(std::string_view text) {
    const OwnedText valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    return valid.get();
}

}  // namespace maild
