#include "daemons/registryd/reference.h"

#include <algorithm>

#include "trelis/keys/check.h"
#include "trelis/keys/names.h"
#include "trelis/keys/rows.h"

namespace {

using trelis::KeyRow;
using trelis::KeySection;

// From when on a change counts.
std::string Effect(const KeySection& section, const KeyRow& row) {
    if (row.kind == trelis::KeyKind::kWritten) return "-";
    return row.effect != nullptr ? row.effect : section.effect;
}

std::string Alias(const KeyRow& row) {
    return row.alias == nullptr ? "" : std::string("; short name: `") + row.alias + '`';
}

}  // namespace

std::string ListOfKeys(const std::string& prefix) {
    std::string text;
    for (const KeySection& section : trelis::kKeySections) {
        for (const KeyRow& row : section.rows) {
            const std::string path = std::string(section.root) + '/' + row.name;
            if (!path.starts_with(prefix)) continue;
            text += path + "\n    " + row.meaning + " (" +
                    (row.kind == trelis::KeyKind::kWritten
                         ? row.shown
                         : "default: " + trelis::DefaultInWords(row) +
                               "; a change counts: " + Effect(section, row)) +
                    ")\n";
        }
    }
    return text;
}

std::string ValuesOf(const std::string& typed) {
    const auto key =
        typed.starts_with('/') ? trelis::FindByPath(typed) : trelis::FindByShortName(typed);
    if (!key) return "";
    const KeyRow& row = *key->row;
    if (row.kind == trelis::KeyKind::kFlag) return "on\noff\n";
    std::string text = row.words != nullptr ? row.words : row.fallback;
    std::replace(text.begin(), text.end(), '|', '\n');
    return text.empty() ? text : text + '\n';
}

std::string ReferenceTables() {
    std::string text;
    for (const KeySection& section : trelis::kKeySections) {
        text += std::string("## ") + section.title + ": `" + section.root + "/`, short `" +
                section.brief +
                ".`\n\n| Key | Default | A change counts | Meaning |\n|---|---|---|---|\n";
        for (const KeyRow& row : section.rows)
            text += std::string("| `") + row.name + "` | " + trelis::DefaultInWords(row) + " | " +
                    Effect(section, row) + " | " + row.meaning + Alias(row) + " |\n";
        text += '\n';
    }
    return text;
}
