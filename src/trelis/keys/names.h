// The keys of the table by their names: full paths, and the short ones that people type.
//
// A short name is what the section's root is called in short and the row's name, with '.' for '/',
// in small letters (any case is read): /VTWIN/Daemons/MailDaemon/ScanTimeout is maild.scantimeout,
// .../NetworkInterfaces/net/TLS/Mode is interface.net.tls.mode. A row may have an alias besides,
// which stands for its name: interface.net.server. A name in the place of a '*' may hold dots.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "trelis/keys/table.h"

namespace trelis {

struct KnownKey {
    const KeySection* section;
    const KeyRow* row;
    std::vector<std::string> names;  // in the place of the '*'s; those too few stay '*'

    std::string Path() const;
    std::string ShortName() const;
};

// Nothing: the table has no such key. A '*' of a path is one component.
std::optional<KnownKey> FindByPath(std::string_view path);
std::optional<KnownKey> FindByShortName(std::string_view name);
// The path of what stands above keys: `interface.net`, `filters`, `maild`.
std::optional<std::string> PathAbove(std::string_view shortName);
// Whether keys of the table stand below the path.
bool StandsAboveKeys(std::string_view path);
// The known name, of the same kind as what was typed (a path begins with '/'), that is likely
// meant; empty: none is near.
std::string NearestName(const std::string& typed);

// All keys of the table, in its order, but that the keys of one interface, or of whatever else a
// root's '*' stands for, stay together. `namesBelow` gives what stands for a '*', by the path above
// it; a '*' without any stays. `use` is called for each.
void ForEachKnownKey(
    const std::function<std::vector<std::string>(const std::string& above)>& namesBelow,
    const std::function<void(const KnownKey& key)>& use);

}  // namespace trelis
