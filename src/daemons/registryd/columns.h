// Text in columns for a terminal.
#pragma once

#include <string>
#include <vector>

using TextRow = std::vector<std::string>;

// As wide as the terminal that standard output is, at most and without one 100 characters.
std::size_t PageWidth();
// The rows, of equally many cells each, in aligned lines no wider than `width`. The columns are as
// wide as their cells, but take a part of the width at most; what doesn't fit goes on below. The
// last column stands below the others, indented, where they leave too little room. Controls are
// shown as '?'.
std::string InColumns(const std::vector<TextRow>& rows, std::size_t width);
