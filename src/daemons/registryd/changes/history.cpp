#include "daemons/registryd/changes/history.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <nlohmann/json.hpp>

#include "daemons/registryd/any_bytes.h"
#include "daemons/registryd/columns.h"
#include "platform/clock.h"
#include "text/printable.h"
#include "trelis/keys/names.h"
#include "trelis/keys/settings.h"

namespace {

constexpr char kForce[] = "--force";
constexpr char kJson[] = "--json";
constexpr char kHidden[] = "(hidden)";
constexpr trelis::Key kAccounts{trelis::kStatsKey, "Accounts/*"};

bool IsSecret(const std::string& path) {
    const auto key = trelis::FindByPath(path);
    return key && key->row == &kAccounts.Row();
}

std::string NameOf(const std::string& path) {
    const auto key = trelis::FindByPath(path);
    return key ? key->ShortName() : path;
}

std::string Quoted(const std::string& path, const std::optional<std::string>& value) {
    if (!value) return "not set";
    return IsSecret(path) ? kHidden : '"' + CleanText(*value) + '"';
}

void PrintJson(const trelis::Act& act, const trelis::ValueChange& change) {
    const auto value = [&](const std::optional<std::string>& text) {
        if (!text) return nlohmann::json(nullptr);
        return IsSecret(change.path) ? nlohmann::json(kHidden) : AsJson(*text);
    };
    nlohmann::ordered_json line;
    line["act"] = act.number;
    line["time"] = platform::UtcTimeText(act.time);
    line["who"] = AsJson(act.who);
    line["how"] = act.how;
    if (act.undoes != 0) line["undoes"] = act.undoes;
    line["undone"] = act.undone;
    line["key"] = AsJsonKey(change.path);
    line["old"] = value(change.before);
    line["new"] = value(change.after);
    std::cout << line.dump() << '\n';
}

TextRow Row(const trelis::Act& act, const trelis::ValueChange& change, bool first) {
    if (!first) return {"", "", "", "", InWords(change)};
    std::string how = act.how;
    if (act.undoes != 0) how += ' ' + std::to_string(act.undoes);
    if (act.undone) how += ", undone";
    return {std::to_string(act.number), platform::UtcTimeText(act.time), act.who, how,
            InWords(change)};
}

std::optional<std::int64_t> NumberOf(const std::string& text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

// Null, after a word on standard error.
const trelis::Act* ActToUndo(const std::vector<trelis::Act>& acts, const std::string& typed) {
    const auto number = typed.empty() ? std::nullopt : NumberOf(typed);
    const auto found = std::find_if(acts.rbegin(), acts.rend(), [&](const trelis::Act& act) {
        return number ? act.number == *number : !act.undone && act.undoes == 0;
    });
    if (found != acts.rend() && (number || typed.empty()) && !found->undone) return &*found;
    if (typed.empty())
        Failed("there is nothing to undo");
    else if (found == acts.rend() || !number)
        Failed("no such act: " + typed + "; `vtregistry history` prints their numbers");
    else
        Failed("act " + typed + " is undone already");
    return nullptr;
}

}  // namespace

std::string InWords(const trelis::ValueChange& change) {
    return CleanText(NameOf(change.path)) + ": " + Quoted(change.path, change.before) + " -> " +
           Quoted(change.path, change.after);
}

int ShowHistory(const Arguments& arguments) {
    const bool json = !arguments.empty() && arguments[0] == kJson;
    const std::size_t at = json ? 1 : 0;
    if (arguments.size() > at + 1)
        return WrongWords("history takes --json and a key, in this order");
    const auto key = PathOf(arguments.size() > at ? arguments[at] : "/");
    if (!key) return kExitFailed;
    const auto acts = trelis::ReadHistory();
    if (!acts) return Failed("can't read the store");
    std::vector<TextRow> rows;
    for (const trelis::Act& act : *acts) {
        bool first = true;
        for (const trelis::ValueChange& change : act.changes) {
            if (!IsAtOrBelow(change.path, *key)) continue;
            if (json)
                PrintJson(act, change);
            else
                rows.push_back(Row(act, change, std::exchange(first, false)));
        }
    }
    std::cout << InColumns(rows, PageWidth());
    return 0;
}

int Undo(const Arguments& arguments) {
    const bool force = !arguments.empty() && arguments[0] == kForce;
    const std::size_t at = force ? 1 : 0;
    if (arguments.size() > at + 1)
        return WrongWords("undo takes --force and a number, in this order");
    const auto acts = trelis::ReadHistory();
    if (!acts) return Failed("can't read the store");
    const trelis::Act* const act = ActToUndo(*acts, arguments.size() > at ? arguments[at] : "");
    if (act == nullptr) return kExitFailed;
    std::vector<trelis::ValueChange> back;
    for (auto change = act->changes.rbegin(); change != act->changes.rend(); ++change)
        back.push_back({change->path, change->after, change->before});
    std::string where;
    switch (trelis::ApplyChanges(back, force, act->number, where)) {
        case trelis::Applied::kDone:
            break;
        case trelis::Applied::kOtherwise:
            return Failed(NameOf(where) + " has been changed since act " +
                          std::to_string(act->number) +
                          ". Nothing was changed; --force gives it the value from before all the "
                          "same.");
        case trelis::Applied::kFailed:
            return Failed("can't undo; nothing was changed: " +
                          trelis::WhyNotChanged("the store has to be writable"));
    }
    for (const trelis::ValueChange& change : back) std::cout << InWords(change) << '\n';
    return 0;
}
