// Resource strings: the program's fixed texts by number, one table in the source.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
// Copies the text of that number, cut to size, zero-terminated. Its length in the buffer; 0 if
// there is none (the buffer then holds an empty text).
int LoadStringA(void* instance, UINT number, LPSTR buffer, int size);
#endif
