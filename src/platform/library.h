// What a program loads at run time: shared libraries, and its resource strings, the fixed texts by
// number, one table in the source.
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
// Copies the text of that number, cut to size, zero-terminated. Its length in the buffer; 0 if
// there is none (the buffer then holds an empty text).
int LoadStringA(void* instance, UINT number, LPSTR buffer, int size);
#endif
