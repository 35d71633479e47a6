#include "trelis/settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "trelis/size.h"
#include "trelis/store.h"

namespace trelis {
namespace {

void Complain(const std::string& path, const std::string& value, const std::string& instead) {
    std::fprintf(stderr, "%s: \"%s\" can't be used, it is taken for \"%s\"\n", path.c_str(),
                 value.c_str(), instead.c_str());
}

long long OutOfBounds(const KeyRow& row, long long number) {
    const bool below = number < row.least;
    const bool fallback =
        row.beyond == Beyond::kDefault || (below && row.beyond == Beyond::kDefaultBelow);
    if (fallback) return std::strtoll(row.fallback, nullptr, 10);
    return below && row.beyond == Beyond::kNearest ? row.least : row.most;
}

// Within the row's bounds, with a complaint where that takes a change. `given` is not empty.
long long InBounds(const Key& key, Names names, const std::string& given, long long number) {
    const KeyRow& row = key.Row();
    if (number >= row.least && number <= row.most) return number;
    const long long instead = OutOfBounds(row, number);
    Complain(key.Path(names), given, std::to_string(instead));
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

long long ReadNumber(const Key& key, Names names, std::uint32_t store) {
    const std::string given = ReadIfGiven(key, names, store).value_or("");
    const std::string text = given.empty() ? key.Row().fallback : given;
    return InBounds(key, names, text, std::strtoll(text.c_str(), nullptr, 10));
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
    Complain(key.Path(names), given, key.Row().fallback);
    return fallback;
}

bool ReadFlag(const Key& key, Names names) {
    const std::string text = ReadIfGiven(key, names).value_or("");
    return text.starts_with('Y') || text.starts_with('y');
}

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
