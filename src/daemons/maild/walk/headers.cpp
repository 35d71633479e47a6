#include "daemons/maild/walk/headers.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "daemons/maild/coding/words.h"
#include "daemons/maild/walk/namereadings.h"
#include "daemons/maild/walk/parameters.h"
#include "text/ascii.h"

namespace maild {

namespace {

constexpr std::size_t kMostFields = 2000;
// Of a header that is looked into: parameters cost time that grows faster than they do.
constexpr std::size_t kLongestStructured = 16384;
// Every line is compared with each boundary, and each name with all rules.
constexpr std::size_t kMostBoundaries = 8;
constexpr std::size_t kMostNames = 64;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsBlankLine(std::string_view line) { return std::all_of(line.begin(), line.end(), IsBlank); }

bool StartsWithContent(std::string_view name) {
    return EqualIgnoringCase(name.substr(0, 8), "content-");
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (IsBlank(text.front()) || text.front() == '\n')) text.remove_prefix(1);
    while (!text.empty() && (IsBlank(text.back()) || text.back() == '\n')) text.remove_suffix(1);
    return text;
}

bool IsOfName(char c) { return c > ' ' && c < '\x7F'; }

// Some readers take all kinds of blanks and controls from around a header's name.
std::string_view NameIn(std::string_view text) {
    const auto around = [](char c) { return !IsOfName(c); };
    while (!text.empty() && around(text.front())) text.remove_prefix(1);
    while (!text.empty() && around(text.back())) text.remove_suffix(1);
    return text;
}

// Its lines in one; `close`: without the blanks that began them.
std::string Unfold(std::string_view value, bool close = false) {
    std::string unfolded;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\n') {
            unfolded += value[i];
        } else if (close) {
            while (i + 1 < value.size() && IsBlank(value[i + 1])) ++i;
        }
    }
    return unfolded;
}

// Letters and digits alone, small: "8-bit" is "8bit".
std::string Essence(std::string_view text) {
    std::string essence;
    for (const char c : text) {
        if (IsLetter(c) || IsDigit(c)) essence += FoldCase(c);
    }
    return essence;
}

Coding CodingOf(std::string_view word) {
    if (word.empty() || word == "7bit" || word == "8bit" || word == "binary") return Coding::kPlain;
    if (word == "base64") return Coding::kBase64;
    if (word == "quoted-printable") return Coding::kQuotedPrintable;
    if (word == "x-uuencode" || word == "x-uue" || word == "uuencode" || word == "uue")
        return Coding::kUuencode;
    return word == "x-yenc" || word == "yenc" ? Coding::kYenc : Coding::kUnknown;
}

// Words of careless programs for what needs no coding.
bool MeansPlain(const std::string& essence) {
    constexpr std::string_view kWords[] = {"7bit", "7bits", "8bit",  "8bits",  "bit",
                                           "none", "utf8",  "ascii", "binary", "usascii"};
    return std::find(std::begin(kWords), std::end(kWords), essence) != std::end(kWords);
}

// What a reader that guesses makes of an unknown word.
Coding GuessCoding(std::string_view word) {
    const std::string essence = Essence(word);
    const auto has = [&](const char* text) { return essence.find(text) != std::string::npos; };
    if (has("base64") || has("b64")) return Coding::kBase64;
    if (has("quoted") || has("printable")) return Coding::kQuotedPrintable;
    if (has("uu")) return Coding::kUuencode;
    return has("yenc") ? Coding::kYenc : Coding::kUnknown;
}

void AddOnce(std::vector<std::string>& list, std::string text) {
    if (!text.empty() && std::find(list.begin(), list.end(), text) == list.end())
        list.push_back(std::move(text));
}

bool HasTwo(const StructuredValue& value, std::string_view name) {
    const Parameter* first = nullptr;
    for (const Parameter& each : value.parameters) {
        if (each.name != name) continue;
        if (first != nullptr && first->value != each.value) return true;
        first = &each;
    }
    return false;
}

}  // namespace

bool HeaderBlock::AddLine(std::string_view line) {
    bytes_ += static_cast<long long>(line.size()) + 2;
    nul_ = nul_ || line.find('\0') != std::string_view::npos;
    bareCr_ = bareCr_ || line.find('\r') != std::string_view::npos;
    if (!line.empty() && IsBlank(line[0])) {
        foldedOddly_ = foldedOddly_ || fields_.empty() || IsBlankLine(line);
        if (!fields_.empty()) fields_.back().value.append("\n").append(line);
        return true;
    }
    inField_ = false;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        // What a mailbox puts in front of a message.
        const bool envelope =
            fields_.empty() && (line.starts_with("From ") || line.starts_with(">From "));
        broken_ = broken_ || !envelope;
        oddBreak_ = oddBreak_ || (broken_ && ofBody_);
        return true;
    }
    const std::string_view name = NameIn(line.substr(0, colon));
    if (StartsWithContent(name)) {
        odd_ = odd_ || foldedOddly_ || name.size() != colon ||
               !std::all_of(name.begin(), name.end(), IsOfName);
        oddBreak_ = oddBreak_ || broken_;
        ofBody_ = true;
    }
    inField_ = true;
    fields_.push_back({std::string(name), std::string(line.substr(colon + 1))});
    return fields_.size() <= kMostFields;
}

void HeaderBlock::AddToLine(std::string_view piece) {
    bytes_ += static_cast<long long>(piece.size());
    nul_ = nul_ || piece.find('\0') != std::string_view::npos;
    bareCr_ = bareCr_ || piece.find('\r') != std::string_view::npos;
    if (inField_) fields_.back().value += piece;
}

HeaderBlock::Once HeaderBlock::Find(std::string_view name) const {
    Once once;
    bool found = false;
    for (const Field& field : fields_) {
        if (!EqualIgnoringCase(field.name, name)) continue;
        const std::string value(Trim(Unfold(field.value)));
        if (!found) once.value = value;
        once.two = once.two || (found && LowerCase(once.value) != LowerCase(value));
        found = true;
    }
    return once;
}

// Whether all types are the same text in the same charset, written in different ways.
bool HeaderBlock::SameTexts() const {
    std::optional<std::pair<std::string, std::string>> first;
    return std::all_of(fields_.begin(), fields_.end(), [&](const Field& field) {
        if (!EqualIgnoringCase(field.name, "Content-Type")) return true;
        const std::string value(Trim(Unfold(field.value)));
        const StructuredValue type = ParseStructured(value);
        std::string charset;
        for (const Parameter& each : type.parameters) {
            if (each.name != "charset") return false;
            charset += LowerCase(each.value) + ";";
        }
        if (!first) first.emplace(type.main, charset);
        return (type.main == "text/plain" || type.main == "text/html") &&
               *first == std::pair(type.main, charset);
    });
}

// Whether all codings are none.
bool HeaderBlock::NoCodings() const {
    return std::all_of(fields_.begin(), fields_.end(), [](const Field& field) {
        if (!EqualIgnoringCase(field.name, "Content-Transfer-Encoding")) return true;
        const std::string word = LowerCase(Trim(Unfold(field.value)));
        return word.empty() || MeansPlain(word);
    });
}

void HeaderBlock::ReadType(Declared& declared) const {
    Part& part = declared.part;
    const Once type = Find("Content-Type");
    if (type.two && !SameTexts()) declared.ambiguities.push_back(Ambiguous::kTwoContentTypes);
    const StructuredValue parsed = ParseStructured(type.value);
    part.type = parsed.main;
    const std::size_t slash = part.type.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == part.type.size() ||
        part.type.find('/', slash + 1) != std::string::npos)
        part.type = inDigest_ && type.value.empty() ? "message/rfc822" : "text/plain";
    for (const Parameter& each : parsed.parameters) {
        if (each.name == "charset" && part.charset.empty()) part.charset = LowerCase(each.value);
    }
    // In pieces or with a charset of its own.
    if (part.charset.empty() && type.value.find('*') != std::string::npos)
        part.charset = LowerCase(DecodeParameter(type.value, false, "charset"));
    if (part.type == "application/pkcs7-mime" || part.type == "application/x-pkcs7-mime") {
        std::string kind;
        for (const Parameter& each : parsed.parameters) {
            if (each.name == "smime-type") kind = LowerCase(each.value);
        }
        part.inSigned = kind != "enveloped-data";
        part.inEncrypted = kind != "signed-data" && kind != "certs-only";
    }
    part.isHtml = part.type == "text/html" || part.type == "application/xhtml+xml";
    if (HasTwo(parsed, "boundary") || HasTwo(parsed, "name"))
        declared.ambiguities.push_back(Ambiguous::kTwoParameters);
    if (part.type == "message/partial") declared.ambiguities.push_back(Ambiguous::kPartialMessage);
    if (part.type == "message/external-body")
        declared.ambiguities.push_back(Ambiguous::kExternalBody);
    if (part.type == "message/rfc822" || part.type == "message/global" ||
        part.type == "message/news" || part.type == "message/partial" ||
        part.type == "message/external-body")
        part.kind = PartKind::kMessage;
    // Any of several headers may be the one that a reader takes.
    for (const Field& field : fields_) {
        if (!EqualIgnoringCase(field.name, "Content-Type")) continue;
        const std::string unfolded(Trim(Unfold(field.value)));
        const StructuredValue each = ParseStructured(unfolded);
        if (!each.main.starts_with("multipart/")) continue;
        part.kind = PartKind::kMultipart;
        std::vector<std::string> readings;
        for (const Parameter& parameter : each.parameters) {
            if (parameter.name == "boundary") AddOnce(readings, parameter.value);
        }
        const std::size_t own = readings.size();
        AddOnce(readings, DecodeParameter(unfolded, false, "boundary"));
        for (const Parameter& parameter : ParseStructured(Unfold(field.value, true)).parameters) {
            if (parameter.name == "boundary") AddOnce(readings, parameter.value);
        }
        if (own > 0 && readings.size() > own) declared.ambiguities.push_back(Ambiguous::kFolding);
        for (std::string& reading : readings) {
            while (!reading.empty() && IsBlank(reading.back())) reading.pop_back();
            AddOnce(part.boundaries, std::move(reading));
        }
    }
    if (part.kind == PartKind::kMultipart) {
        if (!part.type.starts_with("multipart/")) part.type = "multipart/mixed";
        if (part.boundaries.empty()) declared.ambiguities.push_back(Ambiguous::kNoBoundary);
    }
}

void HeaderBlock::ReadCoding(Declared& declared) const {
    Part& part = declared.part;
    const Once coding = Find("Content-Transfer-Encoding");
    part.codingText = ParseStructured(coding.value).main;
    part.coding = CodingOf(part.codingText);
    // In its full text: a quoted word, or one with something behind it, is known to some only.
    const std::string whole = LowerCase(coding.value);
    if (MeansPlain(Essence(whole))) {
        part.coding = Coding::kPlain;
    } else if (part.coding == Coding::kUnknown || whole != part.codingText) {
        const Coding guess = GuessCoding(whole);
        if (part.coding == Coding::kUnknown) part.coding = guess;
        if (guess != Coding::kUnknown) declared.ambiguities.push_back(Ambiguous::kUnknownEncoding);
        part.oddHeaders = true;
    }
    if (coding.two && !NoCodings()) {
        declared.ambiguities.push_back(Ambiguous::kTwoTransferEncodings);
        part.oddHeaders = true;
    }
    const bool coded = part.coding != Coding::kPlain && part.coding != Coding::kUnknown;
    if (coded && part.kind != PartKind::kLeaf)
        declared.ambiguities.push_back(Ambiguous::kEncodedContainer);
}

void HeaderBlock::ReadDisposition(Declared& declared) const {
    Part& part = declared.part;
    const StructuredValue parsed = ParseStructured(Find("Content-Disposition").value);
    part.disposition = parsed.main;
    part.isText = part.type.starts_with("text/") && part.disposition != "attachment";
    if (HasTwo(parsed, "filename")) declared.ambiguities.push_back(Ambiguous::kTwoParameters);
    const std::string id = Find("Content-ID").value;
    const std::size_t open = id.find('<');
    part.contentId = open == std::string::npos ? id : id.substr(open + 1, id.find('>') - open - 1);
}

void HeaderBlock::ReadNames(Declared& declared) const {
    for (const char* name : {"filename", "name"}) {
        const bool disposition = name[0] == 'f';
        for (const Field& field : fields_) {
            const bool own =
                EqualIgnoringCase(field.name, disposition ? "Content-Disposition" : "Content-Type");
            if (!own) continue;
            const std::string value(Trim(Unfold(field.value)));
            const std::string closed(Trim(Unfold(field.value, true)));
            const std::string decoded = DecodeLoosely(value);
            AddReadings(declared.part.names, value, disposition, name);
            if (closed != value) AddReadings(declared.part.names, closed, disposition, name);
            // As a whole it is no coded text, but some take it for one.
            if (decoded != value) AddCrude(declared.part.names, decoded, name);
        }
    }
}

// Blanks to some readers, to others a part of the word.
bool HeaderBlock::HasControls() const {
    return std::any_of(fields_.begin(), fields_.end(), [](const Field& field) {
        return StartsWithContent(field.name) &&
               std::any_of(field.value.begin(), field.value.end(), [](char c) {
                   return IsControl(c) && c != '\t' && c != '\n' && c != '\r' && c != '\0';
               });
    });
}

Declared HeaderBlock::Read() const {
    Declared declared;
    declared.tooLong = std::any_of(fields_.begin(), fields_.end(), [](const Field& field) {
        return field.value.size() > kLongestStructured && StartsWithContent(field.name);
    });
    if (declared.tooLong) return declared;
    ReadType(declared);
    ReadCoding(declared);
    ReadDisposition(declared);
    ReadNames(declared);
    declared.tooLong = declared.part.boundaries.size() > kMostBoundaries ||
                       declared.part.names.size() > kMostNames;
    if (nul_) declared.ambiguities.push_back(Ambiguous::kNulInHeaders);
    if (bareCr_) declared.ambiguities.push_back(Ambiguous::kBareCrInHeaders);
    if (odd_ || HasControls()) declared.ambiguities.push_back(Ambiguous::kFolding);
    if (oddBreak_) declared.ambiguities.push_back(Ambiguous::kHeaderBreak);
    return declared;
}

std::vector<HeaderField> HeaderBlock::Fields() const {
    std::vector<HeaderField> fields;
    fields.reserve(fields_.size());
    for (const Field& field : fields_) {
        std::string raw(Trim(Unfold(field.value)));
        fields.push_back({field.name, raw, DecodeText(raw)});
    }
    return fields;
}

}  // namespace maild
