#include "platform/account.h"

#include <netdb.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/linux/fail.h"

namespace {

// An identifier as it lies in memory: revision, count of sub-authorities, authority (big-endian),
// sub-authorities.
struct Identifier {
    BYTE revision;
    BYTE count;
    BYTE authority[6];
    DWORD parts[2];
};
constexpr BYTE kAuthorityOfUsers = 22;
static_assert(sizeof(Identifier) == 16);

std::string LookForPerson() {
    const uid_t user = getuid();
    const char* const behind = user == 0 ? std::getenv("SUDO_USER") : nullptr;
    if (behind != nullptr && *behind != '\0') return behind;
    const passwd* const entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : "user " + std::to_string(user);
}

}  // namespace

BOOL GetVersionExA(OSVERSIONINFOA* info) {
    if (info == nullptr || info->dwOSVersionInfoSize != sizeof *info)
        return platform::Fail(ERROR_INVALID_PARAMETER);
    info->dwPlatformId = VER_PLATFORM_WIN32_NT;
    return TRUE;
}

BOOL GetUserNameA(LPSTR buffer, DWORD* size) {
    const passwd* entry = getpwuid(geteuid());
    const std::string name = entry != nullptr ? entry->pw_name : std::to_string(geteuid());
    const DWORD room = *size;
    *size = static_cast<DWORD>(name.size() + 1);
    if (buffer == nullptr || room < *size) return platform::Fail(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(buffer, name.c_str(), *size);
    return TRUE;
}

BOOL LookupAccountNameA(LPCSTR, LPCSTR name, PSID identifier, DWORD* identifierSize, LPSTR domain,
                        DWORD* domainSize, int* use) {
    const passwd* entry = getpwnam(name);
    if (entry == nullptr) return platform::Fail(ERROR_FILE_NOT_FOUND);
    const bool fits = *identifierSize >= sizeof(Identifier) && *domainSize >= 1;
    *identifierSize = sizeof(Identifier);
    if (!fits) {
        *domainSize = 1;
        return platform::Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    const Identifier made{1, 2, {0, 0, 0, 0, 0, kAuthorityOfUsers}, {1, entry->pw_uid}};
    std::memcpy(identifier, &made, sizeof made);
    domain[0] = '\0';
    *domainSize = 0;
    *use = 1;
    return TRUE;
}

BOOL IsValidSid(PSID identifier) {
    if (identifier == nullptr) return FALSE;
    Identifier read{};
    std::memcpy(&read, identifier, sizeof read);
    return read.revision == 1 && read.count == 2 ? TRUE : FALSE;
}

DWORD GetLengthSid(PSID) { return sizeof(Identifier); }

BOOL CopySid(DWORD size, PSID to, PSID from) {
    if (size < sizeof(Identifier)) return platform::Fail(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(to, from, sizeof(Identifier));
    return TRUE;
}

std::string platform::SidText(PSID identifier) {
    if (IsValidSid(identifier) == FALSE) return "-";
    Identifier read{};
    std::memcpy(&read, identifier, sizeof read);
    std::string text = "S-1-" + std::to_string(read.authority[5]);
    for (const DWORD part : read.parts) text += '-' + std::to_string(part);
    return text;
}

const std::string& platform::PersonName() {
    static const std::string& person = *new std::string(LookForPerson());
    return person;
}

std::string platform::HostName() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0 || std::strchr(name, '.') != nullptr) return name;
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0) return name;
    std::string full = found->ai_canonname != nullptr ? found->ai_canonname : name;
    freeaddrinfo(found);
    return full;
}
