#include "daemons/registryd/files.h"

#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "daemons/registryd/any_bytes.h"
#include "text/printable.h"
#include "trelis/admin.h"
#include "trelis/keys/check.h"
#include "trelis/keys/names.h"

namespace {

constexpr char kCheck[] = "--check";
constexpr int kExitDiffers = 1;
constexpr int kExitDiffFailed = 2;

std::optional<trelis::Values> ParseValues(const std::string& text, std::string& why) {
    const nlohmann::json object = nlohmann::json::parse(text, nullptr, false);
    why = "not a JSON object, as `vtregistry dump` prints one";
    if (!object.is_object()) return std::nullopt;
    trelis::Values values;
    for (const auto& [key, json] : object.items()) {
        const auto path = FromJsonKey(key);
        const auto value = FromJson(json);
        why = "not a text: " + key;
        if (!path || !value) return std::nullopt;
        values.emplace_back(*path, *value);
    }
    return values;
}

// Standard input without a name. Nothing, after a word on standard error.
std::optional<trelis::Values> ReadFile(const std::string& name) {
    std::ifstream file;
    if (!name.empty()) file.open(name, std::ios::binary);
    std::istream& input = name.empty() ? std::cin : file;
    // Reading this way doesn't throw, as of a directory; a part of an object is none.
    std::ostringstream text;
    text << input.rdbuf();
    std::string why = "can't be read";
    auto values = file.is_open() || name.empty() ? ParseValues(text.str(), why) : std::nullopt;
    if (!values) Failed((name.empty() ? "standard input" : name) + ": " + why);
    return values;
}

// What is wrong with it; empty: nothing.
std::string Slip(const std::string& path, const std::string& value) {
    const auto key = trelis::FindByPath(path);
    if (!key) {
        if (value.empty() && trelis::StandsAboveKeys(path)) return "";
        return "no program reads it." + Hint(path);
    }
    if (key->row->kind == trelis::KeyKind::kWritten) return "";
    const auto wanted = trelis::WantedInstead(*key->section, *key->row, value);
    return wanted ? '"' + value + "\" should be " + *wanted : "";
}

int Check(const trelis::Values& values) {
    bool good = true;
    for (const auto& [path, value] : values) {
        const std::string slip = Slip(path, value);
        if (slip.empty()) continue;
        good = false;
        std::cout << CleanText(path) << ": " << CleanText(slip) << '\n';
    }
    return good ? 0 : kExitFailed;
}

using Sorted = std::map<std::string, std::string>;

// Those at and below the key.
Sorted Below(const trelis::Values& values, const std::string& key) {
    Sorted below;
    for (const auto& [path, value] : values) {
        const auto known = trelis::FindByPath(path);
        const bool written = known && known->row->kind == trelis::KeyKind::kWritten;
        if (IsAtOrBelow(path, key) && !written) below.insert_or_assign(path, value);
    }
    return below;
}

void PrintOne(char sign, const std::string& path, const std::string& value) {
    std::cout << sign << ' ' << CleanText(path) << " \"" << CleanText(value) << "\"\n";
}

}  // namespace

int Dump(const Arguments& arguments) {
    const auto key = PathOf(arguments.empty() ? "/" : arguments[0]);
    if (!key) return kExitFailed;
    const auto values = trelis::DumpTree(*key);
    if (!values) return Failed("no such key: " + *key);
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [path, value] : *values) object[AsJsonKey(path)] = AsJson(value);
    std::cout << object.dump(2) << '\n';
    return 0;
}

int Load(const Arguments& arguments) {
    const bool check = !arguments.empty() && arguments[0] == kCheck;
    const std::size_t at = check ? 1 : 0;
    if (arguments.size() > at + 1)
        return WrongWords("load takes --check and a file, in this order");
    const auto values = ReadFile(arguments.size() > at ? arguments[at] : "");
    if (!values) return kExitFailed;
    if (check) return Check(*values);
    return trelis::LoadValues(*values)
               ? 0
               : Failed(
                     "can't load; nothing was changed: " +
                     trelis::WhyNotChanged("keys are absolute paths without empty parts, below 512 "
                                           "bytes, and the store has to be writable"));
}

int Diff(const Arguments& arguments) {
    const auto key = PathOf(arguments.size() > 1 ? arguments[1] : "/");
    const auto file = key ? ReadFile(arguments[0]) : std::nullopt;
    if (!file) return kExitDiffFailed;
    const Sorted there = Below(trelis::DumpTree(*key).value_or(trelis::Values{}), *key);
    const Sorted wanted = Below(*file, *key);
    Sorted all = there;
    all.insert(wanted.begin(), wanted.end());
    bool same = true;
    for (const auto& [path, ignored] : all) {
        const auto before = there.find(path);
        const auto after = wanted.find(path);
        const bool both = before != there.end() && after != wanted.end();
        if (both && before->second == after->second) continue;
        same = false;
        if (before != there.end()) PrintOne('-', path, before->second);
        if (after != wanted.end()) PrintOne('+', path, after->second);
    }
    return same ? 0 : kExitDiffers;
}
