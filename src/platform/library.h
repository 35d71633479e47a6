// Shared libraries that are found at run time.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
using HMODULE = void*;
// By full path only: a bare name would search where others may write. "Advapi32.dll" is the
// platform's own, whose operations that are looked for at run time are found in it. Null on
// failure.
HMODULE LoadLibraryA(LPCSTR path);
void* GetProcAddress(HMODULE library, LPCSTR name);
BOOL FreeLibrary(HMODULE library);
#endif
