#include "trelis/keys/names.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "text/ascii.h"
#include "trelis/keys/rows.h"

namespace trelis {
namespace {

using Parts = std::vector<std::string>;

std::string PathPattern(const KeySection& section, const KeyRow& row) {
    return std::string(section.root) + '/' + row.name;
}

std::string ShortPattern(const KeySection& section, const char* tail) {
    std::string name = std::string(section.brief) + '.' + LowerCase(tail);
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

// As it is shown.
std::string ShortPattern(const KeySection& section, const KeyRow& row) {
    return ShortPattern(section, row.alias != nullptr ? row.alias : row.name);
}

std::string Filled(std::string pattern, const Parts& names) {
    std::size_t at = 0;
    for (const std::string& name : names) {
        at = pattern.find('*', at);
        if (at == std::string::npos) break;
        pattern.replace(at, 1, name);
        at += name.size();
    }
    return pattern;
}

// What the '*'s stand for, the shortest that fit; a '*' is anything but nothing and a '/'.
bool Matches(std::string_view pattern, std::string_view text, bool anyCase, Parts& names) {
    for (; !pattern.empty() && pattern[0] != '*'; pattern.remove_prefix(1), text.remove_prefix(1)) {
        if (text.empty()) return false;
        if (anyCase ? FoldCase(pattern[0]) != FoldCase(text[0]) : pattern[0] != text[0])
            return false;
    }
    if (pattern.empty()) return text.empty();
    for (std::size_t length = 1; length <= text.size() && text[length - 1] != '/'; ++length) {
        names.emplace_back(text.substr(0, length));
        if (Matches(pattern.substr(1), text.substr(length), anyCase, names)) return true;
        names.pop_back();
    }
    return false;
}

template <typename Use>
void ForEachRow(Use use) {
    for (const KeySection& section : kKeySections) {
        for (const KeyRow& row : section.rows) use(section, row);
    }
}

// Of an interface called a.b as of the interface a: the shorter name is meant.
bool Better(const Parts& names, const Parts& before) {
    return !names.empty() && !before.empty() && names[0].size() < before[0].size();
}

std::size_t Distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t corner = row[0]++;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t changed = corner + (a[i] == b[j] ? 0 : 1);
            corner = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, corner + 1});
        }
    }
    return row.back();
}

Parts Split(std::string_view text, char separator) {
    Parts parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

std::string WithoutLast(const std::string& text, char separator) {
    const std::size_t end = text.rfind(separator);
    return end == std::string::npos ? "" : text.substr(0, end);
}

// The pattern with what was typed in the places of its '*'s.
std::string LikeTyped(const std::string& pattern, const Parts& typed, char separator) {
    const Parts parts = Split(pattern, separator);
    Parts names;
    for (std::size_t i = 0; i < parts.size() && i < typed.size(); ++i) {
        if (parts[i] == "*") names.push_back(typed[i]);
    }
    return Filled(pattern, names);
}

}  // namespace

std::string KnownKey::Path() const { return Filled(PathPattern(*section, *row), names); }

std::string KnownKey::ShortName() const { return Filled(ShortPattern(*section, *row), names); }

std::optional<KnownKey> FindByPath(std::string_view path) {
    std::optional<KnownKey> found;
    ForEachRow([&](const KeySection& section, const KeyRow& row) {
        Parts names;
        if (!found && Matches(PathPattern(section, row), path, false, names))
            found = KnownKey{&section, &row, names};
    });
    return found;
}

std::optional<KnownKey> FindByShortName(std::string_view name) {
    std::optional<KnownKey> found;
    ForEachRow([&](const KeySection& section, const KeyRow& row) {
        for (const char* tail : {row.alias, row.name}) {
            Parts names;
            if (tail != nullptr && Matches(ShortPattern(section, tail), name, true, names) &&
                (!found || Better(names, found->names)))
                found = KnownKey{&section, &row, names};
        }
    });
    return found;
}

std::optional<std::string> PathAbove(std::string_view shortName) {
    // Pattern and path have the same parts at their ends. The fewer are left away, the nearer, but
    // what may be one more dot of a name in the place of a '*' is none.
    std::size_t fewest = std::string_view::npos;
    Parts best;
    std::optional<std::string> found;
    ForEachRow([&](const KeySection& section, const KeyRow& row) {
        std::string brief = ShortPattern(section, row.name);
        std::string path = PathPattern(section, row);
        for (std::size_t left = 1;; ++left) {
            brief = WithoutLast(brief, '.');
            path = WithoutLast(path, '/');
            if (brief.empty()) break;
            Parts names;
            if (!Matches(brief, shortName, true, names)) continue;
            if (Better(names, best) || (left < fewest && !Better(best, names))) {
                fewest = left;
                best = names;
                found = Filled(path, names);
            }
        }
    });
    return found;
}

bool StandsAboveKeys(std::string_view path) {
    bool above = path == "/";
    ForEachRow([&](const KeySection& section, const KeyRow& row) {
        for (std::string pattern = WithoutLast(PathPattern(section, row), '/');
             !above && !pattern.empty(); pattern = WithoutLast(pattern, '/')) {
            Parts names;
            above = Matches(pattern, path, false, names);
        }
    });
    return above;
}

std::string NearestName(const std::string& typed) {
    const bool isPath = typed.starts_with('/');
    const char separator = isPath ? '/' : '.';
    const Parts parts = Split(typed, separator);
    const std::string low = LowerCase(typed);
    std::string nearest;
    std::size_t least = typed.size() / 3 + 1;  // one that is as far away as this isn't meant
    ForEachRow([&](const KeySection& section, const KeyRow& row) {
        for (const char* tail : {row.alias, row.name}) {
            if (tail == nullptr || (isPath && tail == row.alias)) continue;
            const std::string name = LikeTyped(
                isPath ? PathPattern(section, row) : ShortPattern(section, tail), parts, separator);
            const std::string lowName = LowerCase(name);
            // What stands before it was left away: the same key elsewhere is no nearer.
            const bool isEnd = lowName.ends_with(separator + low);
            const std::size_t distance = isEnd ? 1 : Distance(low, lowName);
            if (distance >= least) continue;
            least = distance;
            nearest = name;
        }
    });
    return nearest;
}

namespace {

using NamesBelow = std::function<Parts(const std::string& above)>;

// Each way to put names in the places of a pattern's '*'s from position `at` on.
void ForEachFilling(const std::string& pattern, std::size_t at, const Parts& names,
                    const NamesBelow& namesBelow, const std::function<void(const Parts&)>& use) {
    const std::size_t star = pattern.find('*', at);
    const Parts fillings =
        star == std::string::npos ? Parts{} : namesBelow(pattern.substr(0, star - 1));
    if (fillings.empty()) return use(names);
    for (const std::string& each : fillings) {
        std::string filled = pattern;
        filled.replace(star, 1, each);
        Parts all = names;
        all.push_back(each);
        ForEachFilling(filled, star + each.size(), all, namesBelow, use);
    }
}

}  // namespace

void ForEachKnownKey(const NamesBelow& namesBelow,
                     const std::function<void(const KnownKey&)>& use) {
    std::string_view before;
    for (const KeySection& first : kKeySections) {
        if (std::exchange(before, first.root) == first.root) continue;  // sections of one root
        ForEachFilling(first.root, 0, {}, namesBelow, [&](const Parts& rootNames) {
            const std::string root = Filled(first.root, rootNames);
            for (const KeySection& section : kKeySections) {
                if (std::string_view(section.root) != first.root) continue;
                for (const KeyRow& row : section.rows) {
                    const std::string pattern = root + '/' + row.name;
                    ForEachFilling(pattern, root.size(), rootNames, namesBelow,
                                   [&](const Parts& names) {
                                       use({&section, &row, names});
                                   });
                }
            }
        });
    }
}

}  // namespace trelis
