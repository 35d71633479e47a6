// Inside libstats/: the text form of report tables: words, white space between them. A table is its
// number of rows, its number of columns and the cells, row by row; tables follow one another.
#pragma once

#include <memory>

#include "libstats/libstats.h"

// The room for a word, its zero byte included; a longer one is cut.
inline constexpr std::size_t kWordSize = 512;

// Writes the next word into `word` and gives the position of the one behind it; null when the text
// is at its end. A double quote makes white space part of the word until the next one, which ends
// it; a quote behind an odd number of backslashes is a plain character.
const char* NextToken(const char* text, char (&word)[kWordSize]);
// The tables that are complete; what follows the first incomplete one is dropped. Null without
// memory.
std::unique_ptr<ReportTables> ParseTables(const char* text);
