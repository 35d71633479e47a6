#include "trelis/keys/settings.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include "text/ascii.h"
#include "text/printable.h"
#include "trelis/keys/size.h"
#include "trelis/store.h"

namespace trelis {
namespace {

std::atomic<bool> g_quiet{false};

// Once for a value: a key that is read again and again is no flood. Not every value is this host's
// own, and the terminal is a person's.
void Complain(const std::string& path, const std::string& value, const std::string& instead) {
    if (g_quiet) return;
    static std::mutex mutex;
    static auto& told = *new std::map<std::string, std::string>;  // never destroyed, as threads
    const std::lock_guard lock(mutex);
    if (std::exchange(told[path], value) == value) return;
    std::fprintf(stderr, "%s: \"%s\" can't be used as it is, it is taken for: %s\n",
                 CleanText(path).c_str(), CleanText(value).c_str(), instead.c_str());
}

// The position of a word in a text of words with a '|' between two; -1: it isn't there.
constexpr int WordPosition(std::string_view words, std::string_view word) {
    for (int position = 0;; ++position) {
        const std::size_t end = words.find('|');
        if (EqualIgnoringCase(words.substr(0, end), word)) return position;
        if (end == std::string_view::npos) return -1;
        words.remove_prefix(end + 1);
    }
}

// The default of a choice is one of its words, that of a number is within its own bounds, a size
// without one has words for it.
constexpr bool MakesSense(const KeyRow& row) {
    if (row.kind == KeyKind::kChoice)
        return WordPosition(row.words, row.fallback) >= 0 &&
               (row.unknown == nullptr || WordPosition(row.words, row.unknown) >= 0);
    if (row.kind != KeyKind::kNumber && row.kind != KeyKind::kSize) return true;
    if (*row.fallback == '\0') return row.kind == KeyKind::kNumber || row.shown != nullptr;
    long long number = 0;
    for (const char* at = row.fallback; *at != '\0'; ++at) number = number * 10 + (*at - '0');
    return number >= row.least && number <= row.most;
}
static_assert([] {
    for (const KeySection& section : kKeySections) {
        for (const KeyRow& row : section.rows) {
            if (!MakesSense(row)) return false;
        }
    }
    return true;
}());

long long OutOfBounds(const KeyRow& row, long long number) {
    const bool below = number < row.least;
    const bool fallback =
        row.beyond == Beyond::kDefault || (below && row.beyond == Beyond::kDefaultBelow);
    if (fallback) return std::strtoll(row.fallback, nullptr, 10);
    return below && row.beyond == Beyond::kNearest ? row.least : row.most;
}

// Within the row's bounds. What takes a change, or was read only in part, is complained of.
long long InBounds(const Key& key, Names names, const std::string& given, long long number,
                   bool whole = true) {
    const KeyRow& row = key.Row();
    const bool within = number >= row.least && number <= row.most;
    const long long instead = within ? number : OutOfBounds(row, number);
    if (!within || !whole) Complain(key.Path(names), given, std::to_string(instead));
    return instead;
}

}  // namespace

std::string Key::Path(Names names) const {
    std::string path(section_->root);
    path.append("/").append(row_->name);
    std::size_t at = 0;
    for (const std::string_view name : names) {
        at = path.find('*', at);
        if (at == std::string::npos) break;
        path.replace(at, 1, name);
        at += name.size();
    }
    return path;
}

std::string Key::ListPath(Names names) const {
    std::string path = Path(names);
    // A name may hold a '*' of its own: those of the pattern that are left are its last ones.
    const std::string pattern = Path();
    const auto stars = static_cast<std::size_t>(std::count(pattern.begin(), pattern.end(), '*'));
    std::size_t star = path.size();
    for (std::size_t left = stars - names.size(); left > 0; --left)
        star = path.rfind('*', star - 1);
    path.resize(star - 1);
    return path;
}

std::optional<std::string> ReadIfGiven(const Key& key, Names names, std::uint32_t store) {
    std::string value(static_cast<std::size_t>(key.Width()), '\0');
    if (TrelisGetValue(store, key.Path(names).c_str(), value.data(), key.Width()) != 0)
        return std::nullopt;
    value.resize(value.find('\0'));
    return value;
}

std::string ReadText(const Key& key, Names names) {
    std::optional<std::string> value = ReadIfGiven(key, names);
    if (!value || (value->empty() && !key.Row().emptyCounts)) return key.Row().fallback;
    return *std::move(value);
}

std::string ReadFormed(const Key& key, Names names) {
    std::string text = ReadText(key, names);
    const KeyRow& row = key.Row();
    if (text.empty() || text == row.fallback || row.form->fits(text)) return text;
    Complain(key.Path(names), text, row.fallback);
    return row.fallback;
}

std::string ReadLine(const Key& key, Names names) {
    std::string text = ReadText(key, names);
    const auto end = std::find_if(text.begin(), text.end(), IsControl);
    if (end == text.end()) return text;
    std::string line = end == text.begin() ? key.Row().fallback : std::string(text.begin(), end);
    Complain(key.Path(names), text, line);
    return line;
}

long long ReadNumber(const Key& key, Names names, std::uint32_t store) {
    const std::string given = ReadIfGiven(key, names, store).value_or("");
    const std::string text = given.empty() ? key.Row().fallback : given;
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    const bool whole = end != text.c_str() &&
                       std::string_view(end).find_first_not_of(' ') == std::string_view::npos;
    return InBounds(key, names, text, number, whole || given.empty());
}

int ReadInt(const Key& key, Names names, std::uint32_t store) {
    return static_cast<int>(std::clamp(ReadNumber(key, names, store), -kMostInt, kMostInt));
}

std::optional<long long> ReadSize(const Key& key, Names names) {
    const std::string given = ReadIfGiven(key, names).value_or("");
    const std::optional<long long> fallback = ParseSize(key.Row().fallback);
    if (given.empty()) return fallback;
    const std::optional<long long> size = ParseSize(given);
    if (size) return InBounds(key, names, given, *size);
    Complain(key.Path(names), given, fallback ? key.Row().fallback : key.Row().shown);
    return fallback;
}

int ReadChoice(const Key& key, Names names) {
    const KeyRow& row = key.Row();
    const std::string text = ReadText(key, names);
    if (const int position = WordPosition(row.words, text); position >= 0) return position;
    const char* instead = row.unknown != nullptr ? row.unknown : row.fallback;
    Complain(key.Path(names), text, instead);
    return WordPosition(row.words, instead);
}

bool ReadFlag(const Key& key, Names names) {
    const std::string text = ReadIfGiven(key, names).value_or("");
    const char first = text.empty() ? 'n' : FoldCase(text.front());
    if (first != 'y' && first != 'n') Complain(key.Path(names), text, "N");
    return first == 'y';
}

void ReadQuietly() { g_quiet = true; }

NameWalk::NameWalk(const Key& key, Names names)
    : parentLength_(key.ListPath(names).size()),
      walk_(TrelisEnumOpen(kLocalStore, key.ListPath(names).c_str())) {}

bool NameWalk::Next(std::string& name) {
    // As wide as a path: a name that didn't fit would look like the end of the list and take the
    // entries behind it out of force.
    char buffer[kPathSize];
    while (walk_ != nullptr && TrelisEnumRead(kLocalStore, walk_, buffer, sizeof buffer) == 0) {
        name = buffer;
        if (parentLength_ + 1 + name.size() < kPathSize) return true;
    }
    return false;
}

}  // namespace trelis
