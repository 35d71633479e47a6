#include "daemons/frame/keys.h"

#include "platform/file.h"
#include "trelis/trelis.h"

namespace {

constexpr char kVersion[] = "2, 0, 67, 0";

void Write(const std::string& key, const std::string& value) {
    TrelisSetValue(kLocalStore, key.c_str(), value.c_str());
}

}  // namespace

int WriteDaemonKeys(const DaemonKeys& keys, const std::string& displayName) {
    char path[512];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return 0;
    const bool opened = TrelisInit2() == 0;
    const std::string root = std::string(keys.root) + '/';
    const std::string versions = std::string(keys.versionsKey) + '/';
    Write(root + "Path", path);
    Write(versions + "Name", displayName);
    Write(versions + "Version", kVersion);
    for (const DaemonKey& each : keys.values)
        Write(each.name.front() == '/' ? each.name : root + each.name, each.value);
    if (opened) TrelisUninit();
    return 1;
}

int DeleteDaemonKeys(const DaemonKeys& keys) {
    if (TrelisInit2() != 0) return 1;
    TrelisDelKey(kLocalStore, keys.root);
    TrelisDelKey(kLocalStore, keys.versionsKey);
    for (const DaemonKey& each : keys.values) {
        if (each.name.front() == '/') TrelisDelKey(kLocalStore, each.name.c_str());
    }
    TrelisUninit();
    return 1;
}
