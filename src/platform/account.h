// The account that runs the process, its security identifier, and the platform's own id.
#pragma once

#include <string>

#include "platform/types.h"

#ifndef _WIN32
using PSID = void*;
struct OSVERSIONINFOA {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    char szCSDVersion[128];
};
inline constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
// The platform id says whether there is a service manager; here there always is (see service.h).
BOOL GetVersionExA(OSVERSIONINFOA* info);
// The account's name. *size: room in, length with the zero byte out.
BOOL GetUserNameA(LPSTR buffer, DWORD* size);
// The identifier of an account: authority 22, sub-authorities 1 and the user's number.
// ERROR_INSUFFICIENT_BUFFER if it or the domain doesn't fit, ERROR_FILE_NOT_FOUND for an unknown
// name.
BOOL LookupAccountNameA(LPCSTR system, LPCSTR name, PSID identifier, DWORD* identifierSize,
                        LPSTR domain, DWORD* domainSize, int* use);
BOOL IsValidSid(PSID identifier);
DWORD GetLengthSid(PSID identifier);
BOOL CopySid(DWORD size, PSID to, PSID from);
#endif

namespace platform {

// The host's name, with its domain where the resolver knows one; which may take the resolver's
// time.
std::string HostName();
// The person behind this process: its user when it was started, or who has become root by sudo.
const std::string& PersonName();
// "S-1-22-1-NUMBER", or "-" for null or an invalid one.
std::string SidText(PSID identifier);

}  // namespace platform
