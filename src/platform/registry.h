// The system registry, as far as a service's installation needs it. On Linux a small tree of files
// in the instance's directory: a key is a directory below registry/, a value the file ".NAME" in
// it, its type in decimal on the first line and its bytes behind. Names that begin with a dot are
// refused. Results are error codes, 0 for success.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
struct RegistryKey;
using HKEY = RegistryKey*;
using REGSAM = DWORD;
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000002U)))

inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

// Opens a key, made with its parents if need be. Components are joined by '\'; one at the end is
// allowed. The caller closes *key.
LSTATUS RegCreateKeyA(HKEY parent, LPCSTR path, HKEY* key);
LSTATUS RegOpenKeyExA(HKEY parent, LPCSTR path, DWORD options, REGSAM access, HKEY* key);
LSTATUS RegSetValueExA(HKEY key, LPCSTR name, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size);
// With data null only *size is told. ERROR_MORE_DATA if *size is too small.
LSTATUS RegQueryValueExA(HKEY key, LPCSTR name, DWORD* reserved, DWORD* type, BYTE* data,
                         DWORD* size);
// A key without sub-keys, with its values. ERROR_ACCESS_DENIED if it has some.
LSTATUS RegDeleteKeyA(HKEY parent, LPCSTR path);
LSTATUS RegDeleteValueA(HKEY key, LPCSTR name);
LSTATUS RegCloseKey(HKEY key);
#endif
