#include "trelis/keys/registration.h"

#include <cstdio>

#include "platform/file.h"
#include "text/ascii.h"
#include "text/usage.h"
#include "trelis/admin.h"
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

// Ends with the store that it opens.
class Opened {
  public:
    explicit operator bool() const { return opened_; }
    Opened(const Registration& registration, const std::string& person, const std::string& word)
        : opened_(TrelisInit2() == 0) {
        if (opened_ && !person.empty())
            KeepHistory(person, word + ' ' + LowerCase(registration.serviceName));
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() {
        if (opened_) TrelisUninit();
    }

  private:
    const bool opened_;
};

// The path with each of the names in the place of its '*', or as it is without one.
std::vector<std::string> Paths(const std::string& path, const std::vector<std::string>& names) {
    const std::size_t star = path.find('*');
    if (star == std::string::npos) return {path};
    std::vector<std::string> paths(names.size(), path);
    for (std::size_t i = 0; i < names.size(); ++i) paths[i].replace(star, 1, names[i]);
    return paths;
}

void AddRow(const std::string& root, const KeyRow& row, const Registration& registration,
            Values& values) {
    std::string path = root + row.name;
    if (row.registersList) path.resize(root.size() + std::string_view(row.name).find("/*"));
    const char* const value = row.registered != nullptr ? row.registered : row.fallback;
    if (*value == '\0' && row.registered == nullptr && !row.registersList) return;
    for (const std::string& each : Paths(path, registration.names))
        values.emplace_back(each, value);
}

// For the person who has typed the word: its result says nothing of the store.
void Complain(const Registration& registration, const std::string& why) {
    std::fprintf(stderr, "%s: %s\n", LowerCase(registration.serviceName).c_str(), why.c_str());
}

}  // namespace

int Register(const Registration& registration, const std::string& person) {
    char path[512];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return 0;
    const Opened store(registration, person, "register");
    if (!store) {
        Complain(registration, WhyNotOpen());
        return 1;
    }
    char version[64];
    const bool known = TrelisGetValue(kLocalStore, (Versions(registration) + "/Version").c_str(),
                                      version, sizeof version) == 0;
    Values values;
    for (const KeySection& section : kKeySections) {
        if (section.program != registration.program) continue;
        const std::string root = std::string(section.root) + '/';
        for (const KeyRow& row : section.rows) {
            if (std::string_view(row.name) == "Path") values.emplace_back(root + row.name, path);
            AddRow(root, row, registration, values);
        }
    }
    for (const RegisteredKey& each : kRegisteredKeys) {
        if (!known && each.program == registration.program)
            values.emplace_back(each.path, each.value);
    }
    values.emplace_back(Versions(registration) + "/Name", registration.displayName);
    values.emplace_back(Versions(registration) + "/Version", RegisteredVersion());
    values.insert(values.end(), registration.others.begin(), registration.others.end());
    if (!LoadValues(values)) Complain(registration, WhyNotChanged("nothing was changed"));
    return 1;
}

int Unregister(const Registration& registration, const std::string& person) {
    const Opened store(registration, person, "unregister");
    if (!store) {
        Complain(registration, WhyNotOpen());
        return 1;
    }
    std::vector<std::string> keys;
    for (const KeySection& section : kKeySections) {
        if (section.program != registration.program) continue;
        // A section that is a list goes as far as its names are the program's.
        const bool list = std::string_view(section.rows.front().name) == "*";
        const std::string root = section.root;
        for (const std::string& each : Paths(list ? root + "/*" : root, registration.names))
            keys.push_back(each);
    }
    keys.push_back(Versions(registration));
    if (!DeleteTrees(keys, false)) Complain(registration, WhyNotChanged("nothing was changed"));
    return 1;
}

}  // namespace trelis
