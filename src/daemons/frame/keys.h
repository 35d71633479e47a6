// The keys of a daemon in the store, as the options register and unregister write and delete them.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

struct DaemonKey {
    std::string name;  // below the daemon's root, or an absolute path
    std::string value;
};
struct DaemonKeys {
    const char* root;         // all of it is deleted by unregister
    const char* versionsKey;  // gets Name and Version
    std::vector<DaemonKey> values;
};

// Writes the program's path below the root, its name and version, and the values, in the place of
// what is there. 1, or 0 if the program's path can't be got.
int WriteDaemonKeys(const DaemonKeys& keys, const std::string& displayName);
// Always 1.
int DeleteDaemonKeys(const DaemonKeys& keys);
