// Inside libstats/: where report files are made, and under which names.
#pragma once

#include "libstats/libstats.h"

// The directory of this program's reports, with its final separator, as the command line tells it:
// the part of the second argument up to its last separator (/ or \), if it holds one; else that of
// the first, which stands whole if it holds none. Cut at size - 1 bytes. 0, or -1 if there is no
// command line.
int ProgramDirectory(char* buffer, int size);
// Makes a new empty file DIRECTORYReport_NUMBER.EXTENSION, the number a multiple of 1000. Null if
// the path doesn't fit, the directory can't be written, or 1,000 names were taken.
ReportPath CreateReportFile(const char* directory, const char* extension);
