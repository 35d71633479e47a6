// Inside check/: its parts. The store is open, and holds something.
#pragma once

#include <string>
#include <vector>

#include "host/check/finding.h"
#include "trelis/keys/settings.h"

// Directories, their permissions, those of files, and the room. Needs no store.
void CheckInstanceDirectories(Findings& findings);
// Every key of the store against the table.
void CheckKeys(Findings& findings);
// Entries of lists that nobody goes by, or that refuse everybody.
void CheckLists(Findings& findings);
// Rules on mail, what is done by them, scores, and the room for what is held back.
void CheckFilters(Findings& findings);
// Settings of an interface that make it an open relay, or contradict each other.
void CheckRelaying(const std::string& interface, Findings& findings);
void CheckModes(const std::string& interface, Findings& findings);
// The page of statistics, its port and accounts.
void CheckPage(const std::vector<std::string>& interfaces, Findings& findings);
// Certificates and their files.
void CheckCertificates(const std::string& interface, Findings& findings);
// Whether the interfaces can listen; which of them go beyond the table.
void CheckListeners(const std::vector<std::string>& interfaces, Findings& findings);
// The mail servers behind an interface. Takes up to a few seconds each.
void CheckServers(const std::string& interface, Findings& findings);
// The scan daemon, its engines and its spam filter, by two messages. Takes up to half a minute.
void CheckScanning(Findings& findings);
// As the daemon knows them; it has to run. False if one of the engines can't be believed.
bool CheckEngines(Findings& findings);
// Behind a clean message, by what has become of it. False if there is nobody to judge spam.
bool CheckSpamFilter(Findings& findings);

consteval trelis::Key InterfaceKey(const char* name) { return {trelis::kInterfaceKey, name}; }

// Gives each entry of a list of the interface with its key. Empty ones count as none.
template <typename Use>
void EachEntry(const trelis::Key& key, const std::string& interface, Use use) {
    trelis::NameWalk names(key, {interface});
    for (std::string name; names.Next(name);) {
        const std::string value = trelis::ReadText(key, {interface, name});
        if (!value.empty()) use(key.Path({interface, name}), value);
    }
}
