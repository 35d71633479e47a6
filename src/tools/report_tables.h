// A report's tables as a person reads them in a terminal.
#pragma once

#include <string>

#include "libstats/libstats.h"

// The table below a title that its first heading gives, numbers to the right, no line wider than
// `width` characters as far as its numbers allow that. What is 0 everywhere is left out, and named
// below. Without rows it says that there is nothing in the period. Controls are shown as '?'.
std::string TableForTerminal(const ReportTable& table, std::size_t width);
// As wide as the terminal that standard output is, at most and without one 100 characters.
std::size_t TerminalWidth();
