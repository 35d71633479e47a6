#include "trelis/keys/check.h"

#include <charconv>
#include <utility>

#include "text/ascii.h"
#include "trelis/keys/size.h"

namespace trelis {
namespace {

constexpr long long kDay = 86400;

// Calls `use` for each of the row's words, until it gives true; gives that.
template <typename Use>
bool AnyWord(const KeyRow& row, Use use) {
    for (std::string_view left = row.words;;) {
        const std::size_t end = left.find('|');
        if (use(left.substr(0, end))) return true;
        if (end == std::string_view::npos) return false;
        left.remove_prefix(end + 1);
    }
}

std::optional<long long> WholeNumber(std::string_view text) {
    long long number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end) return std::nullopt;
    return number;
}

// Of a number with a unit behind it.
std::optional<long long> InUnit(Unit unit, std::string_view value) {
    if (unit == Unit::kBytes) return ParseSize(value);
    const std::optional<long long> seconds =
        unit == Unit::kNone ? std::nullopt : ParseDuration(value);
    if (!seconds || unit == Unit::kSeconds) return seconds;
    if (*seconds % kDay != 0) return std::nullopt;
    return *seconds / kDay;
}

std::string NumberWanted(const KeyRow& row, long long least, long long most) {
    std::string wanted =
        row.kind == KeyKind::kSize ? "a number of bytes, or with K, M or G," : "a number";
    if (row.unit == Unit::kBytes) wanted += " of bytes, or with K, M or G,";
    if (row.unit == Unit::kSeconds) wanted += " of seconds, or with m or h,";
    if (row.unit == Unit::kDays) wanted += " of days, or with w,";
    const bool open = most == std::numeric_limits<long long>::max() ||
                      (most >= kMostInt && row.kind == KeyKind::kNumber);
    if (!open)
        wanted += " from " + std::to_string(least) + " to " + std::to_string(most);
    else if (least > -kMostInt && (row.kind == KeyKind::kNumber || least > 1))
        wanted += " of at least " + std::to_string(least);
    return row.least == 0 && least > 0 ? wanted + ", or 0" : wanted;
}

}  // namespace

std::string AsRead(const KeyRow& row, std::string_view value) {
    if (row.words != nullptr) {
        std::string read(value);
        AnyWord(row, [&](std::string_view word) {
            if (!EqualIgnoringCase(word, value)) return false;
            read = word;
            return true;
        });
        return read;
    }
    if (row.kind == KeyKind::kFlag) {
        for (const char* word : {"y", "yes", "on", "true", "1"}) {
            if (EqualIgnoringCase(value, word)) return "Y";
        }
        for (const char* word : {"n", "no", "off", "false", "0"}) {
            if (EqualIgnoringCase(value, word)) return "N";
        }
    }
    if (row.kind == KeyKind::kNumber && !WholeNumber(value)) {
        if (const auto number = InUnit(row.unit, value)) return std::to_string(*number);
    }
    return std::string(value);
}

std::optional<std::string> WantedInstead(const KeySection& section, const KeyRow& row,
                                         const std::string& value) {
    if (row.kind == KeyKind::kWritten) return "left to the program that writes it";
    if (value.empty()) return std::nullopt;
    const auto width = static_cast<std::size_t>(row.width != 0 ? row.width : section.width);
    if (value.size() >= width) return "at most " + std::to_string(width - 1) + " bytes long";
    if (row.words != nullptr) {
        const bool anyCase = row.kind == KeyKind::kChoice;
        std::string words;
        const bool known = AnyWord(row, [&](std::string_view word) {
            words.append(words.empty() ? "" : ", ").append(word);
            return anyCase ? EqualIgnoringCase(word, value) : word == value;
        });
        return known ? std::nullopt : std::optional("one of: " + words);
    }
    if (row.form != nullptr)
        return row.form->fits(value) ? std::nullopt : std::optional<std::string>(row.form->wanted);
    if (row.kind == KeyKind::kFlag) {
        const char first = FoldCase(value[0]);
        return first == 'y' || first == 'n' ? std::nullopt : std::optional<std::string>("Y or N");
    }
    if (row.kind != KeyKind::kNumber && row.kind != KeyKind::kSize) return std::nullopt;
    const bool sane = row.saneLeast != 0 || row.saneMost != 0;
    const long long least = sane ? row.saneLeast : row.least;
    const long long most = sane ? row.saneMost : row.most;
    const std::optional<long long> number =
        row.kind == KeyKind::kSize ? ParseSize(value) : WholeNumber(value);
    const bool none = number == 0 && row.least == 0;
    if (number && (none || (*number >= least && *number <= most))) return std::nullopt;
    return NumberWanted(row, least, most);
}

std::string DefaultInWords(const KeyRow& row) {
    if (row.shown != nullptr) return row.shown;
    return *row.fallback == '\0' ? "none" : row.fallback;
}

}  // namespace trelis
