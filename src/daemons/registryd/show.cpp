#include "daemons/registryd/show.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <string_view>
#include <utility>

#include "daemons/registryd/columns.h"
#include "text/ascii.h"
#include "trelis/admin.h"
#include "trelis/keys/check.h"
#include "trelis/keys/names.h"
#include "trelis/keys/rows.h"

namespace {

constexpr char kChangedOnly[] = "--changed";

using ValueOf = std::map<std::string, std::string>;

enum class State { kDefault, kRegistered, kSet, kWrong, kUnknown };
constexpr const char* kStateWords[] = {"default", "registered", "set", "wrong", "unknown"};

bool IsAtOrBelow(std::string_view name, std::string_view prefix, char separator) {
    return prefix.empty() || (name.size() >= prefix.size() &&
                              EqualIgnoringCase(name.substr(0, prefix.size()), prefix) &&
                              (name.size() == prefix.size() || name[prefix.size()] == separator ||
                               prefix.back() == separator));
}

std::vector<std::string> NamesBelow(const std::string& above) {
    return trelis::ListChildren(above).value_or(std::vector<std::string>{});
}

class Page {
  public:
    Page(ValueOf values, std::string prefix, bool changedOnly)
        : values_(std::move(values)), prefix_(std::move(prefix)), changedOnly_(changedOnly) {}

    void AddKnown() {
        trelis::ForEachKnownKey(NamesBelow, [this](const trelis::KnownKey& key) { Add(key); });
    }
    void AddUnknown() {
        for (const auto& [path, value] : values_) {
            if (trelis::FindByPath(path) || !IsAtOrBelow(path, UnknownPrefix(), '/')) continue;
            if (value.empty() && trelis::StandsAboveKeys(path)) continue;
            const std::string nearest = trelis::NearestName(path);
            AddRow(path, value, State::kUnknown,
                   "no program reads it" + (nearest.empty() ? "" : "; meant: " + nearest));
        }
    }
    bool Matched() const { return matched_; }
    const std::vector<TextRow>& Rows() const { return rows_; }

  private:
    std::string UnknownPrefix() const {
        if (prefix_.empty() || prefix_.starts_with('/')) return prefix_;
        return trelis::PathAbove(prefix_).value_or("none");
    }
    void Add(const trelis::KnownKey& key) {
        const trelis::KeyRow& row = *key.row;
        const std::string path = key.Path();
        const std::string name = key.ShortName();
        const bool wanted = prefix_.starts_with('/') ? IsAtOrBelow(path, prefix_, '/')
                                                     : IsAtOrBelow(name, Canonical(), '.');
        if (!wanted) return;
        const auto found = values_.find(path);
        const std::string value = found == values_.end() ? "" : found->second;
        if (row.kind == trelis::KeyKind::kWritten) {
            matched_ = true;
            if (!value.empty()) AddRow(name, value, State::kRegistered, row.meaning);
            return;
        }
        if (value.empty() || value == row.fallback)
            return AddRow(name, trelis::DefaultInWords(row), State::kDefault, row.meaning);
        if (const auto instead = trelis::WantedInstead(*key.section, row, value))
            return AddRow(name, value, State::kWrong,
                          "it should be " + *instead + ": " + row.meaning);
        const bool asDefault = row.kind == trelis::KeyKind::kFlag && FoldCase(value[0]) != 'y';
        // What nothing reads, a name for people, changes nothing.
        const bool registered = IsRegistered(path, value) ||
                                (row.registered != nullptr && value == row.registered) ||
                                (row.effect != nullptr && std::string_view(row.effect) == "never");
        AddRow(name, value,
               asDefault    ? State::kDefault
               : registered ? State::kRegistered
                            : State::kSet,
               row.meaning);
    }
    static bool IsRegistered(const std::string& path, const std::string& value) {
        return std::any_of(std::begin(trelis::kRegisteredKeys), std::end(trelis::kRegisteredKeys),
                           [&](const trelis::RegisteredKey& each) {
                               return path == each.path && value == each.value;
                           });
    }
    // A key is asked for by either of its names.
    std::string Canonical() const {
        const auto key = trelis::FindByShortName(prefix_);
        return key ? key->ShortName() : prefix_;
    }
    void AddRow(const std::string& name, const std::string& value, State state,
                const std::string& meaning) {
        matched_ = true;
        if (changedOnly_ && state < State::kSet) return;
        rows_.push_back({name, value, kStateWords[static_cast<std::size_t>(state)], meaning});
    }

    const ValueOf values_;
    const std::string prefix_;
    const bool changedOnly_;
    std::vector<TextRow> rows_;
    bool matched_ = false;  // whether the prefix is one of anything
};

}  // namespace

std::string ShortNames() {
    std::string text;
    trelis::ForEachKnownKey(NamesBelow,
                            [&](const trelis::KnownKey& key) { text += key.ShortName() + '\n'; });
    return text;
}

int Show(const Arguments& arguments) {
    const bool changedOnly = !arguments.empty() && arguments[0] == kChangedOnly;
    const std::size_t at = changedOnly ? 1 : 0;
    const std::string prefix = arguments.size() > at ? arguments[at] : "";
    if (arguments.size() > at + 1 || prefix.starts_with('-'))
        return WrongWords("show takes --changed and a name, in this order");
    const auto all = trelis::DumpTree("/");
    if (!all) return Failed("can't read the store");
    Page page({all->begin(), all->end()}, prefix, changedOnly);
    page.AddKnown();
    page.AddUnknown();
    if (!page.Matched()) return UnknownKey(prefix);
    std::cout << InColumns(page.Rows(), PageWidth());
    return 0;
}
