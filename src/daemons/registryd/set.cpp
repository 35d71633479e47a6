#include "daemons/registryd/set.h"

#include <algorithm>
#include <iostream>

#include "text/printable.h"
#include "trelis/admin.h"
#include "trelis/keys/check.h"
#include "trelis/keys/names.h"
#include "trelis/trelis.h"

namespace {

constexpr char kForce[] = "--force";

int Store(const std::string& path, const std::string& value) {
    if (TrelisSetValue(kLocalStore, path.c_str(), value.c_str()) == 0) return 0;
    return Failed("can't set " + path + ": " +
                  trelis::WhyNotChanged(
                      "a key is an absolute path without empty parts, below 512 bytes, and the "
                      "store has to be writable"));
}

void Warn(const std::string& what) {
    std::cerr << "vtregistry: warning: " << CleanText(what) << '\n';
}

// What stands elsewhere is somebody else's, whose keys aren't known.
bool OfPrograms(const std::string& path) {
    return trelis::StandsAboveKeys(path.substr(0, path.find('/', 1)));
}

int SetPath(const std::string& path, const std::string& value, bool force) {
    const int code = Store(path, value);
    if (code != 0 || force) return code;
    const auto key = trelis::FindByPath(path);
    if (!key) {
        const std::string hint = Hint(path);
        if (!trelis::StandsAboveKeys(path) && (OfPrograms(path) || !hint.empty()))
            Warn("no program reads " + path + '.' + hint);
        return 0;
    }
    if (const auto wanted = trelis::WantedInstead(*key->section, *key->row, value))
        Warn(path + " is stored, but programs don't take \"" + value +
             "\" as it is: it should be " + *wanted);
    return 0;
}

// An interface is made by its first key: one that is made by a slip of the pen would listen.
void TellOfNew(const trelis::KnownKey& key) {
    std::string root = key.section->root;
    const std::size_t star = root.find('*');
    if (star == std::string::npos) return;
    root.replace(star, 1, key.names[0]);
    if (trelis::ListChildren(root)) return;
    std::string brief = key.section->brief;
    brief.replace(brief.find('*'), 1, key.names[0]);
    std::cerr << "vtregistry: " << CleanText(brief)
              << " is new; if it isn't meant, `vtregistry del " << CleanText(brief) << "`\n";
}

int SetShort(const std::string& name, const std::string& written, bool force) {
    const auto key = trelis::FindByShortName(name);
    if (!key) return UnknownKey(name);
    if (std::find(key->names.begin(), key->names.end(), "*") != key->names.end())
        return Failed(name + ": a name of your choice has to stand in the place of the *");
    const std::string value = force ? written : trelis::AsRead(*key->row, written);
    const auto wanted = trelis::WantedInstead(*key->section, *key->row, value);
    if (wanted && !force)
        return Failed(name + " can't be \"" + written + "\": it should be " + *wanted +
                      ". Nothing was changed; --force stores it all the same.");
    TellOfNew(*key);
    return Store(key->Path(), value);
}

}  // namespace

int SetKey(const Arguments& arguments) {
    const bool force = arguments.size() == 3;
    if (force && arguments[0] != kForce)
        return WrongWords("set takes a key and a value: put a value with blanks in quotes");
    const std::string& key = arguments[force ? 1 : 0];
    const std::string& value = arguments[force ? 2 : 1];
    return key.starts_with('/') ? SetPath(key, value, force) : SetShort(key, value, force);
}
