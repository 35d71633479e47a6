// Every key of the store against the table of keys.
#include "host/check/parts.h"
#include "text/printable.h"
#include "trelis/admin.h"
#include "trelis/keys/check.h"
#include "trelis/keys/names.h"

namespace {

constexpr std::size_t kMostShown = 60;  // of a value

void TellUnknown(const std::string& path, Findings& findings) {
    const std::string nearest = trelis::NearestName(path);
    findings.Warn(path, "no program reads this key",
                  nearest.empty() ? "delete it; vtregistry keys lists those that are read"
                                  : "delete it; perhaps " + nearest + " was meant");
}

}  // namespace

void CheckKeys(Findings& findings) {
    for (const auto& [path, value] : trelis::DumpTree("/").value_or(trelis::Values())) {
        const std::optional<trelis::KnownKey> key = trelis::FindByPath(path);
        if (!key) {
            // The place of a list may be made before its entries are.
            if (!value.empty() || !trelis::StandsAboveKeys(path)) TellUnknown(path, findings);
        } else if (key->row->kind != trelis::KeyKind::kWritten) {
            if (const auto wanted = trelis::WantedInstead(*key->section, *key->row, value))
                findings.Error(path,
                               '"' + CleanText(value, kMostShown) + "\" can't be used as it is",
                               "it should be " + *wanted);
        }
    }
}
