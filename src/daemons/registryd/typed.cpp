#include "daemons/registryd/typed.h"

#include <iostream>

#include "text/printable.h"
#include "text/usage.h"
#include "trelis/keys/names.h"

int Failed(const std::string& what) {
    std::cerr << "vtregistry: " << CleanText(what) << '\n';
    return kExitFailed;
}

int WrongWords(const std::string& what) {
    Failed(what);
    return kExitUsage;
}

std::string Hint(const std::string& typed) {
    const std::string nearest = trelis::NearestName(typed);
    return nearest.empty() ? "" : " Is " + nearest + " meant?";
}

int UnknownKey(const std::string& typed) {
    const std::string hint = Hint(typed);
    return Failed("no such key: " + typed + '.' +
                  (hint.empty() ? " `vtregistry show` prints the known ones." : hint));
}

std::optional<std::string> PathOf(const std::string& typed) {
    if (typed.starts_with('/')) return typed;
    if (const auto key = trelis::FindByShortName(typed)) return key->Path();
    if (auto above = trelis::PathAbove(typed)) return above;
    UnknownKey(typed);
    return std::nullopt;
}

bool IsAtOrBelow(const std::string& path, const std::string& key) {
    return key == "/" || path == key || path.starts_with(key + '/');
}
