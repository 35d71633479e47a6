#include "platform/registry.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>

#include "platform/file.h"
#include "platform/home.h"

struct RegistryKey {
    std::string directory;
};

namespace {

constexpr LSTATUS kSuccess = 0;

LSTATUS Error(DWORD error) { return static_cast<LSTATUS>(error); }

bool GoodName(std::string_view name) {
    return !name.empty() && name.size() <= 200 && name.front() != '.' &&
           name.find_first_of("/\\") == std::string_view::npos;
}

std::string Root(HKEY key) {
    return key == HKEY_LOCAL_MACHINE ? platform::HomePath("registry/HKEY_LOCAL_MACHINE")
                                     : key->directory;
}

// What a system has from the start: the application log with its own name as its first source.
void MakeRoot(const std::string& root) {
    static constexpr char kSources[] = "7\nApplication\0";
    if (mkdir(root.c_str(), 0700) != 0) return;
    std::string log = root;
    for (const char* name :
         {"/SYSTEM", "/CurrentControlSet", "/Services", "/EventLog", "/Application"}) {
        log += name;
        mkdir(log.c_str(), 0700);
    }
    platform::PutFile(log + "/.Sources", std::string(kSources, sizeof kSources), true);
}

// The directory of a key below `parent`, made with its parents if `make`. Empty for a bad path.
std::string Directory(HKEY parent, LPCSTR path, bool make) {
    std::string directory = Root(parent);
    if (directory.empty() || path == nullptr) return "";
    if (parent == HKEY_LOCAL_MACHINE) MakeRoot(directory);
    for (std::string_view rest(path); !rest.empty();) {
        const std::size_t end = std::min(rest.find('\\'), rest.size());
        const std::string_view name = rest.substr(0, end);
        if (!GoodName(name)) return "";
        directory.append("/").append(name);
        if (make) mkdir(directory.c_str(), 0700);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return directory;
}

LSTATUS Open(HKEY parent, LPCSTR path, bool make, HKEY* key) {
    *key = nullptr;
    const std::string directory = Directory(parent, path, make);
    if (directory.empty()) return Error(ERROR_INVALID_PARAMETER);
    struct stat info {};
    if (stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return Error(make ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND);
    *key = new (std::nothrow) RegistryKey{directory};
    return *key != nullptr ? kSuccess : Error(ERROR_NOT_ENOUGH_MEMORY);
}

std::string ValueFile(HKEY key, LPCSTR name) {
    return key == nullptr || name == nullptr || !GoodName(name) ? std::string()
                                                                : Root(key) + "/." + name;
}

}  // namespace

LSTATUS RegCreateKeyA(HKEY parent, LPCSTR path, HKEY* key) { return Open(parent, path, true, key); }

LSTATUS RegOpenKeyExA(HKEY parent, LPCSTR path, DWORD, REGSAM, HKEY* key) {
    return Open(parent, path, false, key);
}

LSTATUS RegSetValueExA(HKEY key, LPCSTR name, DWORD, DWORD type, const BYTE* data, DWORD size) {
    const std::string file = ValueFile(key, name);
    if (file.empty()) return Error(ERROR_INVALID_PARAMETER);
    const std::string text =
        std::to_string(type) + '\n' + std::string(reinterpret_cast<const char*>(data), size);
    return platform::PutFile(file, text, false) ? kSuccess : Error(ERROR_ACCESS_DENIED);
}

LSTATUS RegQueryValueExA(HKEY key, LPCSTR name, DWORD*, DWORD* type, BYTE* data, DWORD* size) {
    const std::string file = ValueFile(key, name);
    std::string text;
    if (file.empty() || !platform::ReadWholeFile(file, text)) return Error(ERROR_FILE_NOT_FOUND);
    const std::size_t line = text.find('\n');
    if (line == std::string::npos) return Error(ERROR_FILE_NOT_FOUND);
    if (type != nullptr) *type = static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10));
    const auto length = static_cast<DWORD>(text.size() - line - 1);
    const DWORD room = size != nullptr ? *size : 0;
    if (size != nullptr) *size = length;
    if (data == nullptr) return kSuccess;
    if (room < length) return Error(ERROR_MORE_DATA);
    std::copy_n(text.data() + line + 1, length, data);
    return kSuccess;
}

LSTATUS RegDeleteKeyA(HKEY parent, LPCSTR path) {
    const std::string directory = Directory(parent, path, false);
    if (directory.empty() || directory == Root(parent)) return Error(ERROR_INVALID_PARAMETER);
    struct stat info {};
    if (stat(directory.c_str(), &info) != 0) return Error(ERROR_FILE_NOT_FOUND);
    if (platform::HasSubdirectory(directory)) return Error(ERROR_ACCESS_DENIED);
    platform::RemoveFiles(directory, ".");
    return rmdir(directory.c_str()) == 0 ? kSuccess : Error(ERROR_ACCESS_DENIED);
}

LSTATUS RegDeleteValueA(HKEY key, LPCSTR name) {
    const std::string file = ValueFile(key, name);
    if (file.empty() || unlink(file.c_str()) != 0) return Error(ERROR_FILE_NOT_FOUND);
    return kSuccess;
}

LSTATUS RegCloseKey(HKEY key) {
    if (key != HKEY_LOCAL_MACHINE) delete key;
    return kSuccess;
}
