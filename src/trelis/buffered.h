// Reads that leave an empty text in the buffer when they fail, so that a caller that ignores the
// result sees an empty value. All readers of the configuration but the log client use these.
#pragma once

#include <cstdint>

#include "trelis/trelis.h"

// As TrelisGetValue and TrelisEnumRead; after a failure buffer holds "" (size is at least 1).
int BufferedGetValue(std::uint32_t store, const char* key, char* buffer, int size);
int BufferedEnumRead(std::uint32_t store, TrelisEnum walk, char* buffer, int size);
