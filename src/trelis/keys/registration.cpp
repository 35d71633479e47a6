#include "trelis/keys/registration.h"

#include "platform/file.h"
#include "text/usage.h"
#include "trelis/keys/rows.h"
#include "trelis/trelis.h"

namespace trelis {
namespace {

// Four numbers, as a program's resources on other systems have them.
std::string RegisteredVersion() {
    std::string version;
    for (const char* at = ProgramVersion(); *at != '\0'; ++at)
        version += *at == '.' ? std::string(", ") : std::string(1, *at);
    return version + ", 0";
}

std::string Versions(const Registration& registration) {
    return std::string(kVersionsKey) + '/' + registration.serviceName;
}

void Write(const std::string& key, const std::string& value) {
    TrelisSetValue(kLocalStore, key.c_str(), value.c_str());
}

// The path with each of the names in the place of its '*', or as it is without one.
std::vector<std::string> Paths(const std::string& path, const std::vector<std::string>& names) {
    const std::size_t star = path.find('*');
    if (star == std::string::npos) return {path};
    std::vector<std::string> paths(names.size(), path);
    for (std::size_t i = 0; i < names.size(); ++i) paths[i].replace(star, 1, names[i]);
    return paths;
}

void WriteRow(const std::string& root, const KeyRow& row, const Registration& registration) {
    std::string path = root + row.name;
    if (row.registersList) path.resize(root.size() + std::string_view(row.name).find("/*"));
    const char* const value = row.registered != nullptr ? row.registered : row.fallback;
    if (*value == '\0' && row.registered == nullptr && !row.registersList) return;
    for (const std::string& each : Paths(path, registration.names)) Write(each, value);
}

}  // namespace

int Register(const Registration& registration) {
    char path[512];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return 0;
    const bool opened = TrelisInit2() == 0;
    char version[64];
    const bool known = TrelisGetValue(kLocalStore, (Versions(registration) + "/Version").c_str(),
                                      version, sizeof version) == 0;
    for (const KeySection& section : kKeySections) {
        if (section.program != registration.program) continue;
        const std::string root = std::string(section.root) + '/';
        for (const KeyRow& row : section.rows) {
            if (std::string_view(row.name) == "Path") Write(root + row.name, path);
            WriteRow(root, row, registration);
        }
    }
    for (const RegisteredKey& each : kRegisteredKeys) {
        if (!known && each.program == registration.program) Write(each.path, each.value);
    }
    Write(Versions(registration) + "/Name", registration.displayName);
    Write(Versions(registration) + "/Version", RegisteredVersion());
    if (opened) TrelisUninit();
    return 1;
}

int Unregister(const Registration& registration) {
    if (TrelisInit2() != 0) return 1;
    for (const KeySection& section : kKeySections) {
        if (section.program != registration.program) continue;
        // A section that is a list goes as far as its names are the program's.
        const bool list = std::string_view(section.rows.front().name) == "*";
        const std::string root = section.root;
        for (const std::string& each : Paths(list ? root + "/*" : root, registration.names))
            TrelisDelKey(kLocalStore, each.c_str());
    }
    TrelisDelKey(kLocalStore, Versions(registration).c_str());
    TrelisUninit();
    return 1;
}

}  // namespace trelis
