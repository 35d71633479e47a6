// The platform's texts for its error numbers.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;
inline constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x2000;

// The system's text for an error, ended by CR LF. With FORMAT_MESSAGE_ALLOCATE_BUFFER `buffer` is
// the address of a pointer that gets a block of its own, freed with LocalFree. The length, or 0 if
// there is none.
DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD message, DWORD language, LPSTR buffer,
                     DWORD size, void* arguments);
// Gives null.
void* LocalFree(void* block);
#endif
