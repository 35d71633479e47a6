#include "daemons/maild/walk/namereadings.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "daemons/maild/coding/words.h"
#include "daemons/maild/walk/parameters.h"
#include "text/ascii.h"
#include "text/trim.h"

namespace maild {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

void AddOnce(std::vector<std::string>& list, std::string text) {
    if (!text.empty() && std::find(list.begin(), list.end(), text) == list.end())
        list.push_back(std::move(text));
}

bool IsNameOf(const Parameter& parameter, std::string_view name) {
    return parameter.name.starts_with(name) && parameter.name.substr(name.size(), 1) == "*";
}

// The pieces of one parameter put together, in the order that they say and in which they stand.
void AddJoined(std::vector<std::string>& list, const StructuredValue& parsed,
               std::string_view name) {
    std::vector<std::pair<int, std::string_view>> pieces;
    for (const Parameter& each : parsed.parameters) {
        if (IsNameOf(each, name))
            pieces.emplace_back(std::atoi(each.name.c_str() + name.size() + 1), each.value);
    }
    for (const bool ordered : {false, true}) {
        if (ordered)
            std::stable_sort(pieces.begin(), pieces.end(),
                             [](const auto& a, const auto& b) { return a.first < b.first; });
        std::string joined;
        for (const auto& each : pieces) joined += each.second;
        AddOnce(list, MakeUtf8(joined));
        AddOnce(list, DecodeLoosely(joined));
    }
}

}  // namespace

void AddCrude(std::vector<std::string>& list, std::string_view value, std::string_view name) {
    const std::string small = LowerCase(value);
    std::string joined;
    for (std::size_t at = small.find(name); at != std::string::npos;
         at = small.find(name, at + name.size())) {
        if (at > 0 && IsLetter(small[at - 1])) continue;
        std::size_t from = at + name.size();
        while (from < value.size() &&
               (IsBlank(value[from]) || IsDigit(value[from]) || value[from] == '*'))
            ++from;
        if (from == value.size() || value[from] != '=') continue;
        const std::size_t sign = from;
        from = value.find_first_not_of(" \t", sign + 1);
        if (from == std::string_view::npos) break;
        std::string_view text = value.substr(from);
        text = text[0] == '"' ? text.substr(1, text.find('"', 1) - 1)
                              : Trimmed(text.substr(0, text.find(';')));
        if (std::any_of(value.begin() + static_cast<std::ptrdiff_t>(at + name.size()),
                        value.begin() + static_cast<std::ptrdiff_t>(sign), IsDigit)) {
            joined += text;
        } else {
            AddOnce(list, DecodeLoosely(text));
        }
    }
    AddOnce(list, DecodeLoosely(joined));
}

void AddReadings(std::vector<std::string>& list, const std::string& value, bool disposition,
                 const char* name) {
    AddOnce(list, DecodeParameter(value, disposition, name));
    const StructuredValue parsed = ParseStructured(value);
    for (const Parameter& each : parsed.parameters) {
        if (each.name != name) continue;
        AddOnce(list, DecodeText(each.value));
        AddOnce(list, DecodeLoosely(each.value));
        AddOnce(list, MakeUtf8(each.value));
    }
    AddJoined(list, parsed, name);
    AddCrude(list, value, name);
}

}  // namespace maild
